// The cluster datagrams: their records, type codes and names, the debug
// trace of received records, the membership generation count of a VDisk
// entry and IPv4 addresses carried as numbers.
//
// Every datagram is a 207-byte Hdr followed by a payload chosen by Hdr.type:
//
//   PING               Hdr | VDisk block | VDisk block | ...     (no count)
//   SINGLE_VDISK_PING  Hdr | VDisk block
//   DS_PING            Hdr [| DatastoreEntry]
//   AUX_PING           Hdr | 00 | AuxPingData
//   HEARTBEAT          Hdr
//   VDISK_DELETED      Hdr | VDiskDeleteEntry
//   STORE/DELETE_JSON  Hdr | jsonEntry | <offset bytes> | JSON text to the end
//
//   VDisk block = VDiskEntry | members x MemberEntry | frontends x FrontendEntry
//
// Records go on the wire as they lie in memory (little-endian hosts only),
// packed, so a sender copies them whole and a receiver copies them out of the
// buffer after checking the length (see net/datagram.h). The one big-endian
// field is VDiskEntry.name.mshipgencnt.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

namespace corvald {

static_assert(std::endian::native == std::endian::little,
              "wire records are sent as they lie in memory");

// Type codes of the datagrams this daemon sends and handles. In a namespace
// of their own: the controller's counter indexes reuse several of the names.
namespace msg {
inline constexpr uint8_t PING = 4;
inline constexpr uint8_t DS_PING = 16;
inline constexpr uint8_t HEARTBEAT = 32;
inline constexpr uint8_t SINGLE_VDISK_PING = 33;
inline constexpr uint8_t VDISK_DELETED = 34;
inline constexpr uint8_t AUX_PING = 35;
inline constexpr uint8_t STORE_JSON = 36;
inline constexpr uint8_t DELETE_JSON = 37;
}  // namespace msg

#pragma pack(push, 1)

struct Revision {
    uint32_t freespace;
    uint32_t utilization;
    char rev[24];
};

// The header of every datagram, a copy of the sending node's record.
struct Hdr {
    uint8_t major;
    uint8_t minor;
    uint8_t type;
    uint8_t nodestatus;  // 1: size carries the backup-channel address
    uint32_t uid;        // node id of the node the datagram speaks for
    char vendor[32];
    char model[32];
    Revision revision;
    char serial[64];
    char hbtl[32];
    uint32_t size;
    uint8_t performance;
    uint16_t hostid;
};

struct DatastoreEntry {
    char uuid[14];
    char name[32];
    char description[32];
    uint32_t sector_size;
    uint16_t replicas;
    uint16_t stripes;
    uint8_t overcommit;
};

struct AuxPingData {
    uint32_t length;  // always sizeof(AuxPingData)
    uint32_t allocatedspace;
    uint32_t curvdisks;
    uint32_t curvdisksforctrl;
    uint32_t maxvdisksforctrl;
    uint32_t memtotal;
    uint32_t memavail;
};

struct VDiskName {
    char old_mshipgencnt[2];  // generation count mod 100 as "%02u"
    char name[28];
    uint16_t mshipgencnt;  // big-endian; 0 from senders before version 1.8
};

// Time and parent of a snapshot; the six numbers are those of the record's
// "%02d-%02d-%02d_%02d.%02d.%02d" text.
struct SnapDescr {
    uint8_t y;
    uint8_t m;
    uint16_t d;
    uint8_t H;
    uint8_t M;
    uint8_t S;
    char parent[14];
    uint8_t unused[11];  // always zero
};

union VDiskDescr {
    char descr[32];  // snapshot == 0
    SnapDescr snap;  // snapshot != 0
};

// One VDisk as seen by the sending member; followed on the wire by
// `members` MemberEntry and `frontends` FrontendEntry records.
struct VDiskEntry {
    uint32_t transaction_id;
    char uuid[14];
    VDiskName name;
    uint32_t sector_size;
    uint64_t numkeys;
    uint64_t sectors;
    uint64_t seqno;
    VDiskDescr description;
    uint8_t status;
    uint16_t port;
    uint16_t replicas;
    uint8_t st_mem;
    uint8_t st_mems;
    uint16_t st_size;
    uint16_t snapshot;
    uint16_t members;
    uint16_t frontends;
};

struct MemberEntry {
    uint32_t node;  // member node id
};

struct FrontendEntry {
    uint32_t node;  // frontend IPv4 address as a number (see addr_text_to_number)
};

struct VDiskDeleteEntry {
    uint32_t node;  // equal to Hdr.uid
    char uuid[14];
};

// One replicated JSON document. Unlike the other records its text fields
// always hold a terminating zero.
struct jsonEntry {
    uint8_t major;
    uint8_t minor;
    char nodeuuid[16];
    char path[64];
    char filename[32];
    int64_t lastping;
    uint64_t jsonlen;
    // The sender's in-memory reference to the text: meaningless on the wire,
    // so it is kept as a plain number and never taken for a pointer.
    uint64_t json;
    uint64_t offset;  // bytes between this record and the JSON text
};

#pragma pack(pop)

// Sizes and offsets are the wire format: any change here is a protocol break.
static_assert(sizeof(Revision) == 32);
static_assert(sizeof(Hdr) == 207);
static_assert(offsetof(Hdr, major) == 0);
static_assert(offsetof(Hdr, minor) == 1);
static_assert(offsetof(Hdr, type) == 2);
static_assert(offsetof(Hdr, nodestatus) == 3);
static_assert(offsetof(Hdr, uid) == 4);
static_assert(offsetof(Hdr, vendor) == 8);
static_assert(offsetof(Hdr, model) == 40);
static_assert(offsetof(Hdr, revision.freespace) == 72);
static_assert(offsetof(Hdr, revision.utilization) == 76);
static_assert(offsetof(Hdr, revision.rev) == 80);
static_assert(offsetof(Hdr, serial) == 104);
static_assert(offsetof(Hdr, hbtl) == 168);
static_assert(offsetof(Hdr, size) == 200);
static_assert(offsetof(Hdr, performance) == 204);
static_assert(offsetof(Hdr, hostid) == 205);

static_assert(sizeof(DatastoreEntry) == 87);
static_assert(offsetof(DatastoreEntry, uuid) == 0);
static_assert(offsetof(DatastoreEntry, name) == 14);
static_assert(offsetof(DatastoreEntry, description) == 46);
static_assert(offsetof(DatastoreEntry, sector_size) == 78);
static_assert(offsetof(DatastoreEntry, replicas) == 82);
static_assert(offsetof(DatastoreEntry, stripes) == 84);
static_assert(offsetof(DatastoreEntry, overcommit) == 86);

static_assert(sizeof(AuxPingData) == 28);
static_assert(offsetof(AuxPingData, length) == 0);
static_assert(offsetof(AuxPingData, allocatedspace) == 4);
static_assert(offsetof(AuxPingData, curvdisks) == 8);
static_assert(offsetof(AuxPingData, curvdisksforctrl) == 12);
static_assert(offsetof(AuxPingData, maxvdisksforctrl) == 16);
static_assert(offsetof(AuxPingData, memtotal) == 20);
static_assert(offsetof(AuxPingData, memavail) == 24);

static_assert(sizeof(VDiskName) == 32);
static_assert(sizeof(SnapDescr) == 32);
static_assert(sizeof(VDiskDescr) == 32);
static_assert(sizeof(VDiskEntry) == 125);
static_assert(offsetof(VDiskEntry, transaction_id) == 0);
static_assert(offsetof(VDiskEntry, uuid) == 4);
static_assert(offsetof(VDiskEntry, name.old_mshipgencnt) == 18);
static_assert(offsetof(VDiskEntry, name.name) == 20);
static_assert(offsetof(VDiskEntry, name.mshipgencnt) == 48);
static_assert(offsetof(VDiskEntry, sector_size) == 50);
static_assert(offsetof(VDiskEntry, numkeys) == 54);
static_assert(offsetof(VDiskEntry, sectors) == 62);
static_assert(offsetof(VDiskEntry, seqno) == 70);
static_assert(offsetof(VDiskEntry, description.descr) == 78);
static_assert(offsetof(VDiskEntry, description.snap.y) == 78);
static_assert(offsetof(VDiskEntry, description.snap.m) == 79);
static_assert(offsetof(VDiskEntry, description.snap.d) == 80);
static_assert(offsetof(VDiskEntry, description.snap.H) == 82);
static_assert(offsetof(VDiskEntry, description.snap.M) == 83);
static_assert(offsetof(VDiskEntry, description.snap.S) == 84);
static_assert(offsetof(VDiskEntry, description.snap.parent) == 85);
static_assert(offsetof(VDiskEntry, description.snap.unused) == 99);
static_assert(offsetof(VDiskEntry, status) == 110);
static_assert(offsetof(VDiskEntry, port) == 111);
static_assert(offsetof(VDiskEntry, replicas) == 113);
static_assert(offsetof(VDiskEntry, st_mem) == 115);
static_assert(offsetof(VDiskEntry, st_mems) == 116);
static_assert(offsetof(VDiskEntry, st_size) == 117);
static_assert(offsetof(VDiskEntry, snapshot) == 119);
static_assert(offsetof(VDiskEntry, members) == 121);
static_assert(offsetof(VDiskEntry, frontends) == 123);

static_assert(sizeof(MemberEntry) == 4);
static_assert(offsetof(MemberEntry, node) == 0);
static_assert(sizeof(FrontendEntry) == 4);
static_assert(offsetof(FrontendEntry, node) == 0);

static_assert(sizeof(VDiskDeleteEntry) == 18);
static_assert(offsetof(VDiskDeleteEntry, node) == 0);
static_assert(offsetof(VDiskDeleteEntry, uuid) == 4);

static_assert(sizeof(jsonEntry) == 146);
static_assert(offsetof(jsonEntry, major) == 0);
static_assert(offsetof(jsonEntry, minor) == 1);
static_assert(offsetof(jsonEntry, nodeuuid) == 2);
static_assert(offsetof(jsonEntry, path) == 18);
static_assert(offsetof(jsonEntry, filename) == 82);
static_assert(offsetof(jsonEntry, lastping) == 114);
static_assert(offsetof(jsonEntry, jsonlen) == 122);
static_assert(offsetof(jsonEntry, json) == 130);
static_assert(offsetof(jsonEntry, offset) == 138);

// Fixed offsets and minimum lengths of the datagram kinds, from the parts.
inline constexpr size_t HDR_SIZE = sizeof(Hdr);
inline constexpr size_t DS_PING_SIZE = HDR_SIZE + sizeof(DatastoreEntry);  // 294
inline constexpr size_t AUX_PING_DATA_OFFSET = HDR_SIZE + 1;                // 208
inline constexpr size_t AUX_PING_SIZE = AUX_PING_DATA_OFFSET + sizeof(AuxPingData);  // 236
inline constexpr size_t VDISK_DELETED_SIZE = HDR_SIZE + sizeof(VDiskDeleteEntry);   // 225
inline constexpr size_t JSON_TEXT_OFFSET = HDR_SIZE + sizeof(jsonEntry);            // 353

// Entries of Msg_Types: codes 0 to 35, the last being "UNKNOWN".
inline constexpr int MSG_TYPES_COUNT = 36;
extern const char* const Msg_Types[MSG_TYPES_COUNT];

// The name of hdr->type: its Msg_Types entry for 0 to 34, else "UNKNOWN".
const char* msg_type(const Hdr* hdr);

// Whether debug lines reach the log. A dump is a line per field; with debug
// lines masked off one look at the mask replaces them all, and a reader of
// many records can look once for all of them.
bool record_traces_on();
// One debug line per field of a received record (text fields bounded by
// their width); nothing else. fee_dump logs an error instead when the
// address cannot be shown.
void hdr_dump(const Hdr* hdr);
void dse_dump(const DatastoreEntry* dse);
void vde_dump(const VDiskEntry* vde);
void mbe_dump(const MemberEntry* mbe);
void fee_dump(const FrontendEntry* fee);

// True when the header's version carries the full generation count
// (1.8 and later).
bool hdr_has_full_mshipgencnt(const Hdr* hdr);
// Writes count into a sender's entry: "%02u" of count % 100 always, the
// big-endian count only for versions from 1.8 (else 0).
void vde_encode_mshipgencnt(VDiskEntry* vde, const Hdr* hdr, unsigned int count);
// On receipt: for a sender before 1.8 replaces name.mshipgencnt by the
// value of the two digits of name.old_mshipgencnt, big-endian.
void vde_decode_mshipgencnt(VDiskEntry* vde, const Hdr* hdr);
// The generation count held in name.mshipgencnt, in host order.
unsigned int vde_mshipgencnt(const VDiskEntry* vde);

// Dotted IPv4 text -> number with the first octet most significant (the form
// of FrontendEntry.node and Hdr.size); inet_pton's result: 1 on success, 0
// for a text that is no address. Silent: the caller names the failure.
int addr_text_to_number(const char* text, uint32_t* number);
// Number -> dotted text into text[16], as inet_ntop writes it; 0 (the
// conversion cannot fail, the result is kept for callers written against
// inet_ntop's).
int addr_number_to_text(uint32_t number, char* text);

// Whether a uuid text field (bounded by width, ending at its first zero
// byte) may name a directory of the store or a lock: refused when empty,
// when it holds a "/", and when it is "." or "..". The one check of a name:
// every uuid, node id text or lock name taken from the network, from the
// store or from another program goes through here before it becomes part of
// a path.
bool uuid_is_safe(const char* field, size_t width);
// !uuid_is_safe, after "Refused <kind> uuid \"<text>\"" under op's name.
bool uuid_refused(const char* op, const char* kind, const char* field, size_t width);
// Whether a received VDiskEntry may become a VDisk: its uuid and, for a
// snapshot, its parent uuid pass uuid_is_safe. 0, or -1 (uuid) / -2
// (parent) after an error line naming the refused text.
int vde_check_uuids(const VDiskEntry* vde);

}  // namespace corvald
