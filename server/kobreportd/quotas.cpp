#include "quotas.h"

namespace kobreportd {

namespace {

// The disk is looked at once in a while, not for every upload.
constexpr std::time_t kDiskEvery = 5;

std::string mib(uint64_t bytes) {
    if (bytes % (uint64_t{1} << 20) != 0)
        return std::to_string(bytes) + " bytes";
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

std::optional<Refusal> Quotas::storeGuard(uint64_t bytes, std::time_t now) {
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
    return std::nullopt;
}

std::optional<Refusal> Quotas::full(std::time_t now) {
    std::lock_guard<std::mutex> lock(mutex_);
    return storeGuard(0, now);
}

std::optional<Refusal> Quotas::admit(const std::string &address, uint64_t bytes, std::time_t now) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (auto refusal = storeGuard(bytes, now))
        return refusal;
    if (options_.per_address_per_day == 0)
        return std::nullopt;
    newDay(now);
    uint64_t &used = used_[address];
    if (used + bytes > options_.per_address_per_day) {
        if (used == 0)
            used_.erase(address);
        return Refusal{429, "address_quota",
                       "Too many report bytes from this address today (at most " +
                           mib(options_.per_address_per_day) +
                           "), please send the report again tomorrow\n",
                       static_cast<int>((day_ + 1) * 86400 - now)};
    }
    used += bytes;
    return std::nullopt;
}

void Quotas::received(const std::string &address, uint64_t claimed, uint64_t got, std::time_t now) {
    if (options_.per_address_per_day == 0)
        return;
    std::lock_guard<std::mutex> lock(mutex_);
    // A day that turned while the body came has forgotten the claim.
    bool sameDay = now / 86400 == day_;
    newDay(now);
    uint64_t &used = used_[address];
    used = (sameDay && used >= claimed ? used - claimed : 0) + got;
    if (used == 0)
        used_.erase(address);
}

void Quotas::newDay(std::time_t now) {
    std::time_t day = now / 86400;
    if (day != day_) {
        used_.clear();
        day_ = day;
    }
}

} // namespace kobreportd
