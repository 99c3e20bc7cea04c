// Any bytes as a received datagram: the header, the type name, every trace
// and the VDisk blocks of a PING, read the way the receive path reads them.
#include <cstddef>
#include <cstdint>
#include <memory>

#include "net/datagram.h"
#include "net/netlib.h"
#include "store/object.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace corvald;
    DatagramReader rd(reinterpret_cast<const char*>(data), size);
    Hdr hdr;
    if (!rd.read(&hdr)) return 0;
    (void)msg_type(&hdr);
    hdr_dump(&hdr);
    DatastoreEntry dse;
    if (rd.read_at(HDR_SIZE, &dse)) dse_dump(&dse);

    VDiskTree vdt;
    while (rd.remaining() >= sizeof(VDiskEntry)) {
        std::unique_ptr<VDisk> vd;
        int rc = VDiskRead(&rd, &vd);
        if (rc == -2 || rc == -3) break;
        if (rc == 0) {
            vde_decode_mshipgencnt(&vd->vde, &hdr);
            VDiskTree_RB_INSERT(&vdt, &vd);
        }
    }
    VDiskTreeFlush(&vdt);
    return 0;
}
