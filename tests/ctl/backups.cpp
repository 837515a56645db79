// backups: prints the backup of each registry whose URL is a line of the standard input: the size of its
// text, or "failed", a line, and the text. A test that looks at a registry after each command need not
// start the tool for it.
#include <iostream>
#include <string>

#include "admin/care/backup.h"
#include "admin/error.h"
#include "host/if/keyview_host.h"

static std::string backup_of(const std::string &url) {
    if (keyview_host_set_registry(url.c_str()) != 0) return "failed\nthe URL is refused\n";
    try {
        const std::string text = keyview::admin::backup_registry(false).content;
        return std::to_string(text.size()) + "\n" + text;
    } catch (const keyview::admin::error &failure) {
        return std::string("failed\n") + failure.what() + "\n";
    }
}

int main() {
    for (std::string url; std::getline(std::cin, url);)
        std::cout << backup_of(url) << std::flush;
    return 0;
}
