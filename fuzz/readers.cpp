// Kills readers in the middle of their reading while a writer goes on: what they kept of the file
// must be taken back, or the file would grow without end.
//
// Usage: readers [COUNT]; it prints the sizes of the file.
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "process.h"
#include "registry.h"

namespace keyview::test {

static constexpr const char *LOCK = "LKRT.DATABASE.DATABASES.sales";
static const std::string DEEP = "DATABASE.DATABASES.sales.INSTANCE.sales1.NODE";

class dying_readers {
  public:
    dying_readers() {
        if (keyview_host_set_registry(url_.c_str()) != 0) throw std::runtime_error("no registry");
        apply_all(1);
    }

    void run(int count) {
        for (int i = 0; i < 40; ++i)
            apply_all(static_cast<size_t>(i));  // until the file has the size that it needs
        uintmax_t before = size();
        for (int i = 0; i < count; ++i) {
            child_process reader([](const meeting &parent) {
                client keys;
                locker locks;
                if (locks.shared(LOCK) != 0 || keys.read(DEEP) != "node1") return 1;
                return parent.tell() && parent.wait() ? 0 : 2;  // for ever
            });
            if (!reader.here.wait()) throw std::runtime_error("a reader did not begin");
            apply_all(static_cast<size_t>(i));
        }  // each is killed while it holds its moment
        (void)printf("%d killed readers: the file had %ju bytes and has %ju\n", count, before,
                     size());
        if (size() > 2 * before) throw std::runtime_error("the file grew");
    }

  private:
    // Values whose sizes go up and down, so that pages come and go.
    void apply_all(size_t round) {
        std::vector<change> changes = {put(DEEP, "node1")};
        for (size_t i = 0; i < 20; ++i) {
            changes.push_back(put("DATABASE.DATABASES.other.V" + std::to_string(i),
                                  std::string((round * 7 + i * 13) % 50 * 97, 'v')));
        }
        open_backend(url_, open_mode::create).keys->apply(changes);
    }

    uintmax_t size() const {
        return std::filesystem::file_size(scratch_.path + "/registry/data.mdb");
    }

    scratch_directory scratch_;
    std::string url_ = "lmdb:" + scratch_.path + "/registry";
};

}  // namespace keyview::test

int main(int argc, char **argv) {
    try {
        keyview::test::dying_readers().run(argc > 1 ? atoi(argv[1]) : 40);
    } catch (const std::exception &error) {
        (void)fprintf(stderr, "readers: %s\n", error.what());
        return 1;
    }
    return 0;
}
