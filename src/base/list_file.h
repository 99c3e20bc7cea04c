// The list files (local nodes, unicast hosts): one entry per line, read
// whole and applied only when the whole file read cleanly.
#pragma once

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/log.h"
#include "base/unique_file.h"

namespace corvald {

// The largest list file read (local nodes, unicast hosts, a VDisk's
// membership and frontends, the local-files index): far above what any of
// them can meaningfully hold, far below what would hurt to read.
constexpr size_t kListFileMax = 1 << 20;

// Reads path into *list, handing every entry line (newline removed) to
// add(line, list), which logs under op why it refuses one. Comments ('#' in
// the first column) and empty lines are skipped; a line of blanks is an
// entry. Lines hold at most 254 characters and their newline: fgets leaves a
// longer line without its newline in the buffer, which makes the file
// malformed. 0 after the whole file; negative after a failure logged under
// op, with *list then partly filled and to be discarded.
template <class List, class AddFn>
int read_list_file(const char* op, const char* path, List* list, AddFn add) {
    CV_NOTICE_AS(op, "Loading %s", path);
    UniqueFile fp(std::fopen(path, "r"));
    if (!fp) {
        CV_ERROR_AS(op, "fopen(%s): %s", path, std::strerror(errno));
        return -1;
    }
    struct stat st;
    if (::fstat(::fileno(fp.get()), &st) == 0 && st.st_size > static_cast<off_t>(kListFileMax)) {
        CV_ERROR_AS(op, "Oversized file %s: %lld bytes", path, static_cast<long long>(st.st_size));
        return -3;
    }
    char line[256];
    for (;;) {
        if (std::fgets(line, sizeof line, fp.get()) == nullptr) {
            if (std::ferror(fp.get())) {
                CV_ERROR_AS(op, "Error reading %s", path);
                return -2;
            }
            return 0;
        }
        // A zero byte inside a line also ends up here: the text before it
        // has no newline.
        size_t len = std::strlen(line);
        if (len == 0 || line[len - 1] != '\n') {
            CV_ERROR_AS(op, "Malformed file %s", path);
            return -3;
        }
        line[len - 1] = '\0';
        if (line[0] == '#' || line[0] == '\0') continue;
        if (add(line, list) < 0) return -4;
    }
}

}  // namespace corvald
