// Names of processes for people.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace keyview::host {

std::string host_name();

// "keyviewctl, process 17 on db1".
std::string process_text(const std::string &program, pid_t pid);
std::string this_process();

// The same for a process of this machine, with the time from which it holds a lock; "" if none of
// this number has run since that time. NO_TIME names any, without a time.
constexpr int64_t NO_TIME = INT64_MAX;
std::string process_since(pid_t pid, int64_t since_s);

// The content of a file in /proc; "" if it cannot be read.
std::string proc_text(const std::string &path);

// ", since 2026-11-26T12:00:03Z": seconds since 1970, in UTC.
std::string since_text(int64_t since_s);

}  // namespace keyview::host
