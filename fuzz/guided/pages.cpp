// A data file of any bytes: the check ends, and delivers no row that has a wrong checksum.
#include <sys/mman.h>
#include <unistd.h>

#include <stdexcept>

#include "host/embedded/lmdb_check.h"
#include "host/support/error.h"
#include "target.h"

using namespace keyview::host;

void keyview::test::one_input(std::string_view input) {
    static const int fd = memfd_create("data.mdb", MFD_CLOEXEC);
    if (ftruncate(fd, 0) != 0 ||
        pwrite(fd, input.data(), input.size(), 0) != static_cast<ssize_t>(input.size()))
        throw std::runtime_error("no memory");
    try {
        int damages = 0, rows = 0;
        (void)check_data_file(
            fd, [&](auto &&...) { return ++damages > 0; }, [&](auto &&...) { return ++rows > 0; });
        planted_fault(damages == 1 && rows > 0);
    } catch (const host_error &) {
    }
}
