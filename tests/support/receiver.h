// The receive step in-process: datagram bytes handed to handle_datagram on
// a real store in a temporary directory, with every setting put back and
// the log captured afterwards.
#pragma once

#include <netinet/in.h>
#include <sys/stat.h>
#include <syslog.h>

#include <string>
#include <vector>

#include "base/config.h"
#include "controller/controller_internal.h"
#include "store/vdisk.h"
#include "support/log_capture.h"
#include "support/settings.h"
#include "support/store_builder.h"
#include "support/temp_dir.h"

namespace corvald::test {

// The store is dir/s; beside it lie the fence-check program dir/fence,
// which appends "<argc> <argv> <open descriptors> <environment>" per call
// to dir/fence.log and exits with 3 (or sleeps while dir/hang exists), and
// an empty directory dir/keep. No lock is waited for.
struct Receiver {
    TempDir dir;
    const std::string root = dir / "s";
    ScopedSettings settings;
    LogCapture log;
    const int saved_timeout = fence_check_timeout_ms;

    explicit Receiver(const StoreBuilder& store) {
        for (const char* d : {"s", "s/locks", "keep"}) ::mkdir((dir / d).c_str(), 0755);
        store.write(root);
        dir.write("fence", "#!/bin/sh\n[ -e " + dir / "hang" + " ] && exec /bin/sleep 60\n"
                  "echo $# $0 \"$@\" $(/bin/ls /proc/self/fd) $(/bin/cat /proc/$$/environ) >> " +
                  dir / "fence.log\nexit 3\n");
        ::chmod((dir / "fence").c_str(), 0755);
        cfg_work_directory = root, cfg_fence_check = dir / "fence";
        cfg_node_lock_timeout_ms = cfg_datastore_lock_timeout_ms = cfg_vdisk_lock_timeout_ms = 0;
    }
    ~Receiver() { fence_check_timeout_ms = saved_timeout; }

    // Hands bytes to handle_datagram from src (host order), by default
    // 127.0.0.<the header's node id>; what it changed in the store (see
    // changes()).
    Tree feed(const std::string& bytes, uint32_t src = 0) {
        const Tree before = snapshot(root);
        log.clear();
        sockaddr_in from = {};
        from.sin_family = AF_INET;
        if (src == 0) src = 0x7f000000 | uint8_t(bytes.size() > 4 ? bytes[4] : 0);
        from.sin_addr.s_addr = htonl(src);
        handle_datagram(bytes.data(), bytes.size(), &from);
        return changes(before, snapshot(root));
    }
    // The lines of the last feed at level upto and above, with "@" for the
    // temporary directory; no lock's lines.
    std::vector<std::string> lines(int upto = LOG_NOTICE) const {
        std::vector<std::string> out;
        for (LogLine l : log.entries()) {
            for (size_t at; (at = l.text.find(dir.path())) != l.text.npos;)
                l.text.replace(at, dir.path().size(), "@");
            if (l.priority <= upto && !l.text.starts_with("info: Path")) out.push_back(l.text);
        }
        return out;
    }
    // look() of a path in the store.
    std::string at(const std::string& rel) const { return look(root + "/" + rel); }
};

}  // namespace corvald::test
