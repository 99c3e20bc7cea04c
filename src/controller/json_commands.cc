// JSON documents handed in by local clients: the "store_json" and
// "delete_json" commands, the STORE_JSON / DELETE_JSON datagram that
// announces one, and the periodic re-announcement of every document this
// host listed in its local-files index.
//
// A command line reads  <keyword><ignored>|<node>|<path>|<filename>|<text>
// where the text runs to the end of the line and may itself hold "|".
#include <cstring>
#include <string_view>
#include <vector>

#include "base/config.h"
#include "base/log.h"
#include "controller/controller_internal.h"
#include "controller/stats.h"
#include "net/auth.h"
#include "net/datagram.h"
#include "store/json_store.h"

namespace corvald {

namespace {

// The parameters in their order on the command line; LAST is the text.
enum storeJsonParameters { NODEUUID = 0, PATH = 1, FILENAME = 2, LAST = 3 };

constexpr char kSeparator = '|';

}  // namespace

int copyParam(const char* inbuf, size_t inbuflen, char* ofbuff, size_t ofbuflen) {
    std::memset(ofbuff, 0, ofbuflen);
    // Strictly less: the field keeps its terminating zero on the wire and in
    // the metadata file.
    if (inbuflen >= ofbuflen) {
        CV_ERROR("Too big parameter max size %zu", ofbuflen);
        return -1;
    }
    std::memcpy(ofbuff, inbuf, inbuflen);
    return 0;
}

int parse_json_params(jsonEntry* json, const char** text, const char* buf, size_t buflen) {
    // The fields in their order on the line (NODEUUID, PATH, FILENAME) and
    // what a text too long for its field is reported as.
    struct Param {
        char* field;
        size_t width;
        const char* too_long;
    };
    const Param params[LAST] = {
        {json->nodeuuid, sizeof json->nodeuuid, "Failed to handle uuid param CTRL store_json"},
        {json->path, sizeof json->path, "Failed to handle path param CTRL store_json"},
        {json->filename, sizeof json->filename, "Failed to get filename param CTRL store_json"},
    };
    int param = -1;  // nothing before the first separator counts
    size_t start = 0;
    for (size_t i = 0; i < buflen; i++) {
        if (buf[i] != kSeparator)
            continue;
        const char* p = buf + start;
        const size_t n = i - start;
        start = i + 1;
        if (param >= 0 && copyParam(p, n, params[param].field, params[param].width) < 0) {
            CV_ERROR("%s", params[param].too_long);
            return -1;
        }
        if (++param < LAST)
            continue;
        // Right after the file name: the rest of the line is the text, "|"
        // and all, unlooked at.
        if (start >= buflen) {
            CV_ERROR("Failed to get json param CTRL store_json");
            return -1;
        }
        *text = buf + start;
        json->jsonlen = buflen - start;
        return 0;
    }
    return -1;  // the line ended before its fourth separator
}

int json_cmd_handler(char* in_buf, size_t in_buflen, char* buf, size_t buflen, int so,
                     int is_store) {
    const char* kind = is_store ? "STORE" : "DELETE";
    jsonEntry je = {};
    const char* text = nullptr;
    if (parse_json_params(&je, &text, in_buf, in_buflen) < 0) {
        CV_ERROR("%s JSON failed to parse parameters", kind);
        return -1;
    }
    CV_NOTICE("%s JSON Command nodeuuid %s | path %s | filename %s | jsonlen %zu", kind,
              je.nodeuuid, je.path, je.filename, static_cast<size_t>(je.jsonlen));
    // A name that leads out of the JSON tree is refused here, before it is
    // announced: every peer would refuse it as well, and the cluster should
    // not carry it at all.
    if (json_entry_refused(__func__, &je))
        return -1;
    const unsigned char type = is_store ? msg::STORE_JSON : msg::DELETE_JSON;
    if (send_json_ping(&je, text, buf, buflen, so, type) < 0) {
        CV_ERROR("%s JSON Failed to send ping", kind);
        return -1;
    }
    if (is_store) {
        if (json_write_local_files(&je, text) < 0) {
            CV_ERROR("STORE JSON Failed to write local files");
            return -1;
        }
    } else if (json_delete_local_files(&je) < 0) {
        CV_ERROR("DELETE JSON Failed to delete local files");
        return -1;
    }
    return 0;
}

int send_json_ping(jsonEntry* jsonobj, const char* json, char* buf, size_t buflen, int so,
                   unsigned char type) {
    Node* node = find_local_node(jsonobj->nodeuuid);
    if (node != nullptr) {
        prepare_local_node(node);
        const int rc = load_local_node(node, 0);
        if (rc == -1) {
            CV_ERROR("STORE JSON can not lock Node %u", node->nodeid);
            return -1;
        }
        if (rc == -2) {
            CV_ERROR("STORE JSON failed to load Node %u", node->nodeid);
            return -1;
        }
    } else {
        CV_DEBUG("STORE JSON Node %.16s not found in local DB use local node instead",
                 jsonobj->nodeuuid);
        // The header of any local node will do; the entry keeps the node id
        // the client named.
        for (auto& n : local_nodes) {
            prepare_local_node(n.get());
            if (load_local_node(n.get(), 0) == 0) {
                node = n.get();
                break;
            }
        }
        if (node == nullptr) {
            CV_ERROR("STORE JSON failed to load any local Node");
            return -1;
        }
    }
    jsonobj->major = node->hdr.major;
    jsonobj->minor = node->hdr.minor;
    jsonobj->offset = 0;
    // The sender's reference to its text means nothing to a receiver; an
    // address of this process's memory is not put on the wire.
    jsonobj->json = 0;

    // The room of a signing daemon's trailer is kept free behind the text.
    const size_t room = buflen - auth_trailer_room();
    DatagramWriter w(buf, room);
    if (!put_header(&w, buf, room, node, type)) {
        CV_ERROR("STORE JSON too big header can not send %zu", sizeof(Hdr));
        return -1;
    }
    if (!w.put(*jsonobj)) {
        CV_ERROR("STORE JSON too big entry can not send %zu", JSON_TEXT_OFFSET);
        return -1;
    }
    const size_t len = static_cast<size_t>(jsonobj->jsonlen);
    if (!w.put_bytes(std::string_view(json, len))) {
        CV_ERROR("STORE JSON too big json can not send %zu", len + JSON_TEXT_OFFSET);
        return -1;
    }
    return xmit_msg(buf, buflen, w.length(), so, counter::ST_JSON);
}

int send_pings_json(char* buf, size_t buflen, int so) {
    // The index is read where the store writes it, at the configured
    // local_files place, so that moving it does not silently end the
    // re-announcements (with the default the two are one place anyway).
    StorePath index;
    if (json_index_path(__func__, index) < 0)
        return -1;
    // The lines are read by a lambda, which must not log under its own name.
    constexpr const char* kOp = "send_pings_json";
    std::vector<char> text(buflen + 1);
    json_index_lines(index, [&](char* line) {
        // The index is a file other programs can write too: a line that names
        // anything but a document of the JSON tree is never read.
        if (!json_file_in_tree(line)) {
            CV_DEBUG_AS(kOp, "Skip %s: not a document of the JSON tree", line);
            return true;
        }
        jsonEntry je = {};
        const int rc = json_load_metadata(line, &je);
        if (rc == -2) {
            CV_DEBUG_AS(kOp, "too long path for metadata_path %s", line);
        } else if (rc < 0 || json_entry_refused(kOp, &je)) {
            CV_DEBUG_AS(kOp, "Failed to load metadata for file %s", line);
        } else {
            std::memset(text.data(), 0, buflen);
            ssize_t got = json_read_document(line, text.data(), buflen);
            if (got < 2) {
                CV_ERROR_AS(kOp, "Failed to read json from file %s", index);
            } else {
                text[static_cast<size_t>(got)] = '\0';
                je.jsonlen = static_cast<uint64_t>(got);
                send_json_ping(&je, text.data(), buf, buflen, so, msg::STORE_JSON);
            }
        }
        return true;
    });
    return 0;
}

}  // namespace corvald
