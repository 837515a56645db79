// Records what this process does to the files of one directory: each call that writes, syncs, makes,
// renames or removes, in its order. The calls of the kit and of LMDB end in functions of this program,
// which call those of libc.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace keyview::test {

struct file_event {
    enum class kind {
        make_directory,
        make,        // a file with a name
        rename,      // name to other
        remove,      // the name
        write,       // data at an offset of a file
        resize,      // a file to the length offset
        sync,        // a file
        sync_names,  // the directory
        note,        // of the program that records
    };
    kind what;
    size_t file = 0;  // in the order in which they were made
    std::string name = {}, other = {};
    size_t offset = 0;
    std::string data = {};
    bool durable = false;  // a write that returns when it is on the disk
};

// Begins to record for a directory, which need not exist yet, and ends.
void record_files(const std::string &directory);
std::vector<file_event> recorded_files();

// Whether syncs do nothing at all, for those who only read what others left.
void skip_syncs(bool skip);

// Adds an event of the program's own.
void note_event();

}  // namespace keyview::test
