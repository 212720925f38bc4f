#include "quotas.h"

namespace kobreportd {

namespace {

// The disk is looked at once in a while, not for every upload.
constexpr std::time_t kDiskEvery = 5;

std::string mib(uint64_t bytes) {
    return std::to_string(bytes >> 20) + " MiB";
}

} // namespace

Quotas::Quotas(const QuotaOptions &options, std::function<DiskState()> probe)
    : options_(options), probe_(std::move(probe)) {}

DiskState Quotas::disk(std::time_t now) {
    if (diskAt_ < 0 || now - diskAt_ >= kDiskEvery || now < diskAt_) {
        disk_ = probe_ ? probe_() : DiskState{};
        diskAt_ = now;
    }
    return disk_;
}

std::optional<Refusal> Quotas::admit(const std::string &address, uint64_t bytes, std::time_t now) {
    std::lock_guard<std::mutex> lock(mutex_);
    DiskState d = disk(now);
    if (d.free_bytes && d.total_bytes && *d.total_bytes > 0) {
        // What is free once this upload is in, against the share kept free.
        double left = static_cast<double>(*d.free_bytes > bytes ? *d.free_bytes - bytes : 0);
        if (left < options_.min_free_disk * static_cast<double>(*d.total_bytes))
            return Refusal{507, "disk_free",
                           "Report not stored: the server is short of disk space, please send it"
                           " again later\n",
                           3600};
    }
    if (options_.max_db_size && d.db_bytes && *d.db_bytes + bytes > options_.max_db_size)
        return Refusal{507, "db_size",
                       "Report not stored: the server's store is full, please send it again"
                       " later\n",
                       3600};
    if (options_.per_address_per_day == 0)
        return std::nullopt;
    std::time_t day = now / 86400;
    if (day != day_) {
        used_.clear();
        day_ = day;
    }
    auto it = used_.find(address);
    uint64_t used = it == used_.end() ? 0 : it->second;
    if (used + bytes > options_.per_address_per_day)
        return Refusal{429, "address_quota",
                       "Too many report bytes from this address today (at most " +
                           mib(options_.per_address_per_day) +
                           "), please send the report again tomorrow\n",
                       static_cast<int>((day + 1) * 86400 - now)};
    return std::nullopt;
}

void Quotas::received(const std::string &address, uint64_t bytes, std::time_t now) {
    if (options_.per_address_per_day == 0 || bytes == 0)
        return;
    std::lock_guard<std::mutex> lock(mutex_);
    std::time_t day = now / 86400;
    if (day != day_) {
        used_.clear();
        day_ = day;
    }
    used_[address] += bytes;
}

} // namespace kobreportd
