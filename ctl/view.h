// What corvalctl reads from the store: one plain struct per record, filled
// under the record's path lock by the daemon's own loaders, so a record is
// never seen half-rewritten. A record that cannot be locked or loaded keeps
// its key and says why in `error` ("locked", or the loader's own message);
// it is never left out.
#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace corvald::ctl {

// How long corvalctl waits for any record's lock: an operator's listing must
// not stall behind a busy daemon the way the daemon's own work may.
constexpr int kLockWaitMs = 200;

struct NodeView {
    std::string id;  // the record's directory name
    bool local = false;
    std::string error;
    std::string ipaddr, version, datastore;
    size_t vdisks = 0;
    std::optional<int64_t> lastping, age;
    std::string state;  // alive, late, silent, unknown; empty for a failed record
};

struct DatastoreView {
    std::string uuid, error, name;
    uint32_t sector_size = 0;
    unsigned replicas = 0, stripes = 0;
    std::vector<std::string> members;
    size_t vdisks = 0;
};

struct MemberView {
    uint32_t node = 0;
    std::string error;
    unsigned gen_count = 0, status = 0;
    std::vector<std::string> frontends;
};

struct VDiskView {
    std::string uuid, error, name, description, parent, snaptime;
    bool snapshot = false;
    uint32_t sector_size = 0;
    uint64_t sectors = 0;
    unsigned replicas = 0;
    std::optional<uint32_t> highest_gen_count;
    std::vector<MemberView> members;
};

struct DocView {
    std::string document;  // the document file, relative to the JSON tree
    std::string error, node, path, filename;
    bool local = false;  // listed in the local-files index: handed in on this host
    std::optional<int64_t> lastping, age, expires_in;
};

// The loaders report through syslog(3); corvalctl keeps their last error line
// (without its "error: <operation>(): " prefix) instead of logging it.
void note_error(const char* line);

// Liveness from the age of lastping against heartbeat_interval: alive up to
// twice the interval, late up to five times, silent beyond.
const char* liveness(int64_t age, int heartbeat_interval);

// Each fills *out sorted by key; -1 with *why set when the top directory
// exists but cannot be read (a missing one is an empty list).
int load_nodes(time_t now, std::vector<NodeView>* out, std::string* why);
int load_datastores(std::vector<DatastoreView>* out, std::string* why);
int load_vdisks(std::vector<VDiskView>* out, std::string* why);
int load_docs(time_t now, std::vector<DocView>* out, std::string* why);
// The one VDisk uuid (a plain directory name of at most 14 characters).
VDiskView load_vdisk(const std::string& uuid);

}  // namespace corvald::ctl
