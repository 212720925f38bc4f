#include "networks.h"

#include <maxminddb.h>

namespace kobreportd {

struct Networks::Db {
    MMDB_s mmdb{};
    ~Db() { MMDB_close(&mmdb); }

    static std::unique_ptr<Db> open(const std::string &file, std::string &error) {
        auto db = std::make_unique<Db>();
        int status = MMDB_open(file.c_str(), MMDB_MODE_MMAP, &db->mmdb);
        if (status != MMDB_SUCCESS) {
            error = "cannot read " + file + " as a MaxMind DB: " + MMDB_strerror(status);
            // Nothing is left to close after a failed open.
            db->mmdb = MMDB_s{};
            return nullptr;
        }
        return db;
    }

    // The entry for address, if the database holds one.
    std::optional<MMDB_entry_s> find(const std::string &address) const {
        int gai = 0, status = MMDB_SUCCESS;
        // The library's lookup takes a non-const handle but only reads it.
        auto r = MMDB_lookup_string(const_cast<MMDB_s *>(&mmdb), address.c_str(), &gai, &status);
        if (gai != 0 || status != MMDB_SUCCESS || !r.found_entry)
            return std::nullopt;
        return r.entry;
    }
};

namespace {

// The value at path in entry, when it is there and of that type.
std::optional<MMDB_entry_data_s> value(MMDB_entry_s entry, const char *const *path, uint32_t type) {
    MMDB_entry_data_s data{};
    if (MMDB_aget_value(&entry, &data, path) != MMDB_SUCCESS || !data.has_data || data.type != type)
        return std::nullopt;
    return data;
}

std::string utf8(const MMDB_entry_data_s &d) {
    return std::string(d.utf8_string, d.data_size);
}

} // namespace

Networks::Networks() = default;
Networks::~Networks() = default;

bool Networks::open(const std::string &asnFile, const std::string &countryFile,
                    std::string &error) {
    if (!asnFile.empty() && !(asn_ = Db::open(asnFile, error)))
        return false;
    if (!countryFile.empty() && !(country_ = Db::open(countryFile, error)))
        return false;
    return true;
}

bool Networks::any() const {
    return asn_ || country_;
}

Network Networks::lookup(const std::string &address) const {
    Network n;
    if (asn_)
        if (auto e = asn_->find(address)) {
            static const char *const number[] = {"autonomous_system_number", nullptr};
            static const char *const name[] = {"autonomous_system_organization", nullptr};
            if (auto d = value(*e, number, MMDB_DATA_TYPE_UINT32))
                n.asn = d->uint32;
            if (auto d = value(*e, name, MMDB_DATA_TYPE_UTF8_STRING))
                n.as_name = utf8(*d);
        }
    if (country_)
        if (auto e = country_->find(address)) {
            static const char *const iso[] = {"country", "iso_code", nullptr};
            if (auto d = value(*e, iso, MMDB_DATA_TYPE_UTF8_STRING))
                n.country = utf8(*d);
        }
    return n;
}

} // namespace kobreportd
