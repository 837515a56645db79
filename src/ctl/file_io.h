// Whole files in and out. A failure is a tool_error that names the file.
#pragma once

#include <string>
#include <string_view>

namespace keyview::ctl {

// The name as messages print it.
std::string file_label(const std::string &name);

// All of a file; "-" is standard input.
std::string read_file(const std::string &name);

// A document, or a backup, of a file; YAML as the JSON that it stands for. what: "the document is not
// applied".
std::string read_document(const std::string &name, const std::string &what);

// Throws the tool_error of an output file that is in the folder of a registry on this machine, where
// only the registry's own files belong.
void refuse_own_file(const std::string &name, const std::string &registry_url);

// Replaces a file: beside it, synced, renamed, so that under its name there is always all of the
// old content or all of the new. A symbolic link stays one. What is no regular file, such as a pipe
// or a device, is written into.
// mode is that of the file afterwards; with KEEP_MODE the old one's, or as the umask wants it.
constexpr int KEEP_MODE = -1, PRIVATE_FILE = 0600;
void replace_file(const std::string &name, std::string_view content, int mode = KEEP_MODE);

// Throws if a file exists: what was salvaged must not replace a whole one.
void require_absent(const std::string &name);

}  // namespace keyview::ctl
