// See undo_file.h.
#include "ctl/undo_file.h"

#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <vector>

#include "ctl/output.h"
#include "ctl/terminal.h"

namespace keyview::ctl {

namespace fs = std::filesystem;

static constexpr size_t KEPT = 100;

static fs::path undo_folder() {
    std::string state = environment("XDG_STATE_HOME"), home = environment("HOME");
    if (state.empty() && !home.empty()) state = home + "/.local/state";
    if (!state.empty()) return fs::absolute(state) / "keyview" / "undo";
    throw tool_error{EXIT_USAGE, "nothing was changed", "",
                     "there is no folder for the file that would undo the change",
                     "set HOME or XDG_STATE_HOME"};
}

// Each missing folder, for its owner alone.
static void make_private(const fs::path &folder) {
    std::error_code failed;
    if (fs::is_directory(folder, failed)) return;
    make_private(folder.parent_path());
    if (fs::create_directory(folder, failed)) fs::permissions(folder, fs::perms::owner_all, failed);
    if (!failed) return;
    throw tool_error{
        exit_of_errno(failed.value()), "nothing was changed", folder.string(),
        "the folder for the file that would undo the change cannot be created: " + failed.message(),
        "set XDG_STATE_HOME to a folder where this user may write"};
}

// The names begin with their time, so their order is that of the changes.
static void remove_old_files(const fs::path &folder) {
    std::vector<fs::path> files;
    std::error_code failed;
    for (const fs::directory_entry &one : fs::directory_iterator(folder, failed))
        files.push_back(one.path());
    std::sort(files.begin(), files.end());
    for (size_t n = 0; n + KEPT <= files.size(); ++n)
        fs::remove(files[n], failed);  // one that stays does no harm
}

std::string new_undo_file() {
    fs::path folder = undo_folder();
    make_private(folder);
    remove_old_files(folder);
    char stamp[32] = "";
    time_t now = time(nullptr);
    tm utc = {};
    (void)strftime(stamp, sizeof stamp, "%Y%m%dT%H%M%SZ", gmtime_r(&now, &utc));  // it fits
    for (int n = 0;; ++n) {
        std::string name =
            std::string(stamp) + "-" + std::to_string(getpid()) + "-" + std::to_string(n) + ".json";
        if (std::error_code failed; !fs::exists(folder / name, failed)) return folder / name;
    }
}

}  // namespace keyview::ctl
