// A remote-control datagram of any bytes, evaluated and carried out.
#include "fuzzsupport.h"
#include "remote.h"

#include <unistd.h>

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    // The "remove dropped file" command takes any name, ".." included: as root a generated
    // input could delete system files, so the run gives up root first.
    if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0))
        abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::application();
    static Remote remote;
    remote.handle(QByteArray(reinterpret_cast<const char *>(data), int(size)));
    return 0;
}
