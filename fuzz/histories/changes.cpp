// Reports what a cluster itself delivers of its tree, past the store of the kit: "C rev path value" for
// each change, in the order of the cluster; "-" is the value of a key that is removed.
//
// Usage: histories_changes URL REPORT
#include <cstdio>
#include <string>

#include "lock_history.h"
#include "own_process.h"

namespace keyview::test {

static std::string value_of(const host::wire::Event &event) {
    if (event.type() == host::wire::Event::DELETE) return "-";
    const std::string &value = event.kv().value();
    return value.substr(0, value.find('\0'));
}

static void follow_all(const std::string &url, const std::string &report_path) {
    const host::cluster_settings settings = host::settings_of(url);
    const host::layout keys(settings.prefix);
    const report_file report(report_path);
    event_log log(settings);
    for (size_t reported = 0;; usleep(50000)) {
        std::string all;
        log.visit(&reported, [&](const host::wire::Event &event) {
            auto elements = keys.elements(event.kv().key());
            if (!elements) return;
            all += all.empty() ? "C\t" : "\nC\t";
            all += std::to_string(event.kv().mod_revision()) + '\t' +
                   host::path_of_elements(*elements) + '\t' + value_of(event);
        });
        if (!all.empty()) report.line(all);
    }
}

}  // namespace keyview::test

int main(int argc, char **argv) {
    if (argc != 3) return 2;
    try {
        keyview::test::follow_all(argv[1], argv[2]);
    } catch (const std::exception &error) {
        (void)fprintf(stderr, "histories_changes: %s\n", error.what());
    }
    return 1;
}
