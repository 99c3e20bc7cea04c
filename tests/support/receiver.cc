#include "support/receiver.h"

#include <netinet/in.h>
#include <sys/stat.h>

#include "base/config.h"
#include "controller/controller_internal.h"
#include "store/vdisk.h"

namespace corvald::test {

Receiver::Receiver(const StoreBuilder& store) : saved_timeout_(fence_check_timeout_ms) {
    for (const char* d : {"s", "s/locks", "keep"}) ::mkdir((dir / d).c_str(), 0755);
    store.write(root);
    dir.write("fence", "#!/bin/sh\n[ -e " + dir / "hang" + " ] && exec /bin/sleep 60\necho $# $0 \"$@\" "
              "$(/bin/ls /proc/self/fd) $(/bin/cat /proc/$$/environ) >> " + dir / "fence.log\nexit 3\n");
    ::chmod((dir / "fence").c_str(), 0755);
    cfg_work_directory = root, cfg_fence_check = dir / "fence";
    cfg_node_lock_timeout_ms = cfg_datastore_lock_timeout_ms = cfg_vdisk_lock_timeout_ms = 0;
}

Receiver::~Receiver() { fence_check_timeout_ms = saved_timeout_; }

Tree Receiver::feed(const std::string& bytes) {
    const Tree before = snapshot(root);
    log.clear();
    sockaddr_in from = {};
    from.sin_family = AF_INET;
    from.sin_addr.s_addr = htonl(0x7f000000 | static_cast<uint8_t>(bytes.size() > 4 ? bytes[4] : 0));
    handle_datagram(bytes.data(), bytes.size(), &from);
    return changes(before, snapshot(root));
}

std::vector<std::string> Receiver::lines(int upto) const {
    std::vector<std::string> out;
    for (LogLine l : log.entries()) {
        for (size_t at; (at = l.text.find(dir.path())) != l.text.npos;)
            l.text.replace(at, dir.path().size(), "@");
        if (l.priority <= upto && !l.text.starts_with("info: Path")) out.push_back(l.text);
    }
    return out;
}

}  // namespace corvald::test
