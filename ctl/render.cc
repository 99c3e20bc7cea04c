#include "render.h"

#include <algorithm>
#include <cstdio>
#include <initializer_list>
#include <nlohmann/json.hpp>
#include <optional>

namespace corvald::ctl {

namespace {

using J = nlohmann::ordered_json;
using Row = std::vector<std::string>;

// Length of the printable UTF-8 character at s[i], 0 when there is none.
size_t printable_at(const std::string& s, size_t i) {
    const auto c = static_cast<unsigned char>(s[i]);
    if (c >= 0x20 && c < 0x7f)
        return c == '\\' ? 0 : 1;
    size_t n = c >= 0xc2 && c <= 0xdf   ? 2
               : c >= 0xe0 && c <= 0xef ? 3
               : c >= 0xf0 && c <= 0xf4 ? 4
                                        : 0;
    if (n == 0 || i + n > s.size())
        return 0;
    for (size_t k = 1; k < n; ++k)
        if ((static_cast<unsigned char>(s[i + k]) & 0xc0) != 0x80)
            return 0;
    const auto c1 = static_cast<unsigned char>(s[i + 1]);
    // C1 controls (U+0080..U+009F), overlong forms, surrogates, beyond U+10FFFF.
    if ((c == 0xc2 && c1 < 0xa0) || (c == 0xe0 && c1 < 0xa0) || (c == 0xed && c1 > 0x9f) ||
        (c == 0xf0 && c1 < 0x90) || (c == 0xf4 && c1 > 0x8f))
        return 0;
    return n;
}

// Characters shown, for column widths (escaped text is ASCII or UTF-8).
size_t width(const std::string& s) {
    return std::count_if(s.begin(), s.end(), [](char c) { return (c & 0xc0) != 0x80; });
}

// Columns two blanks apart, every cell escaped; the last column is not padded.
std::string table(const Row& head, const std::vector<Row>& rows) {
    std::vector<Row> all{head};
    for (const Row& r : rows) {
        Row e;
        for (const std::string& c : r) e.push_back(escape(c));
        all.push_back(std::move(e));
    }
    std::vector<size_t> w(head.size());
    for (const Row& r : all)
        for (size_t i = 0; i < r.size(); ++i) w[i] = std::max(w[i], width(r[i]));
    std::string out;
    for (const Row& r : all) {
        for (size_t i = 0; i < r.size(); ++i) {
            out += r[i];
            if (i + 1 < r.size())
                out += std::string(w[i] - width(r[i]) + 2, ' ');
        }
        out += "\n";
    }
    return out;
}

std::string dash(const std::string& s) {
    return s.empty() ? "-" : s;
}

template <class T>
std::string dash(const std::optional<T>& o) {
    return o ? std::to_string(*o) : "-";
}

std::string join(const std::vector<std::string>& v) {
    std::string out;
    for (const std::string& s : v) out += (out.empty() ? "" : ",") + s;
    return dash(out);
}

// The last column of every table: how the record fared.
std::string state(const std::string& error) {
    return error.empty() ? "ok" : error == "locked" ? error : "error: " + error;
}

template <class T>
J opt(const std::optional<T>& o) {
    return o ? J(*o) : J(nullptr);
}

J error_field(const std::string& e) {
    return e.empty() ? J(nullptr) : J(e);
}

// A node id as a number; null for a name that is none (its error says so).
J node_id(const std::string& id) {
    if (id.empty() || id.size() > 10 || id[0] == '0' ||
        id.find_first_not_of("0123456789") != std::string::npos || std::stoull(id) > UINT32_MAX)
        return nullptr;
    return std::stoul(id);
}

// The last column of a table in one word, the details left to "error".
std::string state_word(const std::string& error, const std::string& ok = "ok") {
    return error.empty() ? ok : error == "locked" ? error : "error";
}

// A record that failed keeps its keys, its error and its state in a word
// ("locked" or "error"); the rest is null. One that did not keeps its own
// state, or "ok".
J finish(J obj, const std::string& error, std::initializer_list<const char*> keys) {
    const std::string ok = obj.contains("state") ? obj["state"].get<std::string>() : "ok";
    if (!error.empty())
        for (auto it = obj.begin(); it != obj.end(); ++it)
            if (std::find(keys.begin(), keys.end(), it.key()) == keys.end())
                *it = nullptr;
    obj["error"] = error_field(error);
    obj["state"] = state_word(error, ok);
    return obj;
}

std::string dump(const char* name, J list) {
    J doc;
    doc[name] = std::move(list);
    return doc.dump(2, ' ', false, J::error_handler_t::replace) + "\n";
}

std::optional<uint64_t> size_of(const VDiskView& v) {
    uint64_t bytes;
    if (__builtin_mul_overflow(v.sectors, uint64_t{v.sector_size}, &bytes))
        return std::nullopt;
    return bytes;
}

J member_json(const MemberView& m) {
    return finish(J{{"node", m.node},
                    {"gen_count", m.gen_count},
                    {"status", m.status},
                    {"frontends", m.frontends}},
                  m.error, {"node"});
}

J vdisk_json(const VDiskView& v) {
    J members = J::array();
    for (const MemberView& m : v.members) members.push_back(member_json(m));
    return finish(J{{"uuid", v.uuid},
                    {"name", v.name},
                    {"size", opt(size_of(v))},
                    {"sectors", v.sectors},
                    {"sector_size", v.sector_size},
                    {"replicas", v.replicas},
                    {"snapshot", v.snapshot},
                    {"parent", v.snapshot ? J(v.parent) : J(nullptr)},
                    {"snaptime", v.snapshot ? J(v.snaptime) : J(nullptr)},
                    {"description", v.snapshot ? J(nullptr) : J(v.description)},
                    {"highest_gen_count", opt(v.highest_gen_count)},
                    {"members", members}},
                  v.error, {"uuid"});
}

std::string members_cell(const VDiskView& v) {
    std::vector<std::string> cells;
    for (const MemberView& m : v.members)
        cells.push_back(std::to_string(m.node) + (m.error.empty()
                                                      ? "(g" + std::to_string(m.gen_count) + ",s" +
                                                            std::to_string(m.status) + ")"
                                                      : "(error)"));
    return join(cells);
}

std::string frontends_cell(const VDiskView& v) {
    std::vector<std::string> all;
    for (const MemberView& m : v.members)
        for (const std::string& f : m.frontends)
            if (std::find(all.begin(), all.end(), f) == all.end())
                all.push_back(f);
    return join(all);
}

}  // namespace

std::string escape(const std::string& s) {
    std::string out;
    for (size_t i = 0; i < s.size();) {
        if (size_t n = printable_at(s, i)) {
            out.append(s, i, n);
            i += n;
            continue;
        }
        char hex[8];
        std::snprintf(hex, sizeof hex, "\\x%02x", static_cast<unsigned char>(s[i++]));
        out += hex;
    }
    return out;
}

std::string fmt_age(int64_t seconds) {
    return seconds < 0 ? "in " + std::to_string(-seconds) + "s" : std::to_string(seconds) + "s ago";
}

std::string nodes_json(const std::vector<NodeView>& v) {
    J list = J::array();
    for (const NodeView& n : v)
        list.push_back(finish(J{{"id", node_id(n.id)},
                                {"local", n.local},
                                {"ipaddr", n.ipaddr.empty() ? J(nullptr) : J(n.ipaddr)},
                                {"version", n.version},
                                {"datastore", n.datastore.empty() ? J(nullptr) : J(n.datastore)},
                                {"vdisks", n.vdisks},
                                {"lastping", opt(n.lastping)},
                                {"age", opt(n.age)},
                                {"state", n.state}},
                              // The JSON id is a number: a name that is none is
                              // kept in the error.
                              node_id(n.id).is_null() ? n.error + ": " + n.id : n.error,
                              {"id", "local"}));
    return dump("nodes", std::move(list));
}

std::string datastores_json(const std::vector<DatastoreView>& v) {
    J list = J::array();
    for (const DatastoreView& d : v) {
        J members = J::array();
        for (const std::string& m : d.members) members.push_back(node_id(m));
        list.push_back(finish(J{{"uuid", d.uuid},
                                {"name", d.name},
                                {"sector_size", d.sector_size},
                                {"replicas", d.replicas},
                                {"stripes", d.stripes},
                                {"members", members},
                                {"vdisks", d.vdisks}},
                              d.error, {"uuid"}));
    }
    return dump("datastores", std::move(list));
}

std::string vdisks_json(const std::vector<VDiskView>& v) {
    J list = J::array();
    for (const VDiskView& d : v) list.push_back(vdisk_json(d));
    return dump("vdisks", std::move(list));
}

std::string docs_json(const std::vector<DocView>& v) {
    J list = J::array();
    for (const DocView& d : v)
        list.push_back(finish(J{{"document", d.document},
                                {"local", d.local},
                                {"node", node_id(d.node)},
                                {"path", d.path},
                                {"filename", d.filename},
                                {"lastping", opt(d.lastping)},
                                {"age", opt(d.age)},
                                {"expires_in", opt(d.expires_in)}},
                              d.error, {"document", "local"}));
    return dump("docs", std::move(list));
}

std::string nodes_table(const std::vector<NodeView>& v) {
    std::vector<Row> rows;
    for (const NodeView& n : v) {
        const char* local = n.local ? "yes" : "no";
        if (!n.error.empty()) {
            rows.push_back({n.id, local, "-", "-", "-", "-", "-", state(n.error)});
            continue;
        }
        rows.push_back({n.id, local, dash(n.ipaddr), n.version, dash(n.datastore),
                        std::to_string(n.vdisks), n.age ? fmt_age(*n.age) : "-", n.state});
    }
    return table({"ID", "LOCAL", "ADDRESS", "VERSION", "DATASTORE", "VDISKS", "LASTPING", "STATE"},
                 rows);
}

std::string datastores_table(const std::vector<DatastoreView>& v) {
    std::vector<Row> rows;
    for (const DatastoreView& d : v) {
        if (!d.error.empty()) {
            rows.push_back({d.uuid, "-", "-", "-", "-", "-", "-", state(d.error)});
            continue;
        }
        rows.push_back({d.uuid, d.name, std::to_string(d.sector_size), std::to_string(d.replicas),
                        std::to_string(d.stripes), join(d.members), std::to_string(d.vdisks),
                        "ok"});
    }
    return table({"UUID", "NAME", "SECTOR", "REPLICAS", "STRIPES", "MEMBERS", "VDISKS", "STATE"},
                 rows);
}

std::string vdisks_table(const std::vector<VDiskView>& v) {
    std::vector<Row> rows;
    for (const VDiskView& d : v) {
        if (!d.error.empty()) {
            rows.push_back({d.uuid, "-", "-", "-", "-", "-", "-", state(d.error)});
            continue;
        }
        rows.push_back({d.uuid, d.name, dash(size_of(d)), dash(d.parent), dash(d.highest_gen_count),
                        members_cell(d), frontends_cell(d), "ok"});
    }
    return table({"UUID", "NAME", "SIZE", "PARENT", "GEN", "MEMBERS", "FRONTENDS", "STATE"}, rows);
}

std::string docs_table(const std::vector<DocView>& v) {
    std::vector<Row> rows;
    for (const DocView& d : v) {
        std::string left = !d.expires_in        ? "-"
                           : *d.expires_in >= 0 ? "in " + std::to_string(*d.expires_in) + "s"
                                                : "expired";
        rows.push_back({d.document, d.local ? "yes" : "no", dash(d.node), dash(d.path),
                        dash(d.filename), d.age ? fmt_age(*d.age) : "-", left, state(d.error)});
    }
    return table({"DOCUMENT", "HERE", "NODE", "PATH", "FILE", "LASTPING", "EXPIRES", "STATE"},
                 rows);
}

std::string vdisk_details(const VDiskView& v) {
    std::vector<Row> rows = {{"uuid", v.uuid}, {"state", state(v.error)}};
    if (v.error.empty()) {
        rows.insert(rows.end(),
                    {{"name", v.name},
                     {"size", dash(size_of(v)) + " bytes (" + std::to_string(v.sectors) +
                                  " sectors of " + std::to_string(v.sector_size) + ")"},
                     {"replicas", std::to_string(v.replicas)},
                     {"snapshot", v.snapshot ? "of " + v.parent + " at " + v.snaptime : "no"},
                     {"description", v.snapshot ? "-" : v.description},
                     {"highest_gen_count", dash(v.highest_gen_count)}});
    }
    std::string out = table({"FIELD", "VALUE"}, rows);
    if (!v.error.empty() || v.members.empty())
        return out;
    rows.clear();
    for (const MemberView& m : v.members) {
        const bool ok = m.error.empty();
        rows.push_back({std::to_string(m.node), ok ? std::to_string(m.gen_count) : "-",
                        ok ? std::to_string(m.status) : "-", join(m.frontends), state(m.error)});
    }
    return out + "\n" + table({"MEMBER", "GEN", "STATUS", "FRONTENDS", "STATE"}, rows);
}

namespace {

const char* holder(const LockFileInfo& l) {
    return l.pid <= 0 ? "-" : l.alive ? "alive" : "dead";
}

const char* outcome(int broken) {
    return broken > 0 ? "removed" : broken < 0 ? "failed" : "kept";
}

}  // namespace

std::string locks_table(const std::vector<LockFileInfo>& v, const std::vector<int>& broken,
                        time_t now) {
    std::vector<Row> rows;
    for (size_t i = 0; i < v.size(); ++i) {
        Row r{v[i].name, v[i].pid > 0 ? std::to_string(v[i].pid) : "-", holder(v[i]),
              fmt_age(now - v[i].mtime)};
        if (!broken.empty())
            r.push_back(outcome(broken[i]));
        rows.push_back(std::move(r));
    }
    Row head{"LOCK", "PID", "HOLDER", "TAKEN"};
    if (!broken.empty())
        head.push_back("BREAK");
    return table(head, rows);
}

std::string locks_json(const std::vector<LockFileInfo>& v, const std::vector<int>& broken,
                       time_t now) {
    J out = J::array();
    for (size_t i = 0; i < v.size(); ++i) {
        J l = {{"name", v[i].name},
               {"pid", v[i].pid > 0 ? J(v[i].pid) : J(nullptr)},
               {"holder", v[i].pid <= 0 ? J(nullptr) : J(holder(v[i]))},
               {"age_seconds", static_cast<int64_t>(now - v[i].mtime)}};
        if (!broken.empty())
            l["break"] = outcome(broken[i]);
        out.push_back(std::move(l));
    }
    return dump("locks", std::move(out));
}

}  // namespace corvald::ctl
