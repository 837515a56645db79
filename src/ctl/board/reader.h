// Reads what the board shows, and again what changes, on a thread of its own. A registry that fails is
// tried again.
#pragma once

#include <cstdint>
#include <string>

#include "ctl/board/desk.h"
#include "ctl/command.h"

namespace keyview::ctl {

// The board shows a busy database as busy rather than wait for it.
inline constexpr int64_t LOCK_WAIT_MS = 200;

// Reads until the desk ends. database: its name, or "" for all. Throws nothing.
void read_for_board(const tool &shared, const std::string &database, board_desk *desk) noexcept;

}  // namespace keyview::ctl
