// The network a report was sent from: its autonomous system (number and
// name) and its country, looked up in the operator's MaxMind DB files
// (--asn-db, --country-db) from the client address as the intake found it,
// behind trusted proxies.  Only what the lookup answers is kept, never the
// address, so that failures can be told by network without a record of who.

#ifndef KOBREPORTD_NETWORKS_H
#define KOBREPORTD_NETWORKS_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace kobreportd {

struct Network {
    std::optional<int64_t> asn;
    std::string as_name; // "" when unknown
    std::string country; // ISO 3166 code, "" when unknown
    bool known() const { return asn || !country.empty(); }
};

class Networks {
  public:
    Networks();
    ~Networks();
    Networks(const Networks &) = delete;
    Networks &operator=(const Networks &) = delete;

    // Opens either file ("" for none).  False, with error set, when a file
    // cannot be read as a MaxMind DB.
    bool open(const std::string &asnFile, const std::string &countryFile, std::string &error);
    // Whether any file is open: without one nothing is looked up or kept.
    bool any() const;
    // Safe from any thread: the databases are only read.
    Network lookup(const std::string &address) const;

  private:
    struct Db;
    std::unique_ptr<Db> asn_, country_;
};

} // namespace kobreportd

#endif
