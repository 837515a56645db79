// See frame.h.
#include "ctl/board/frame.h"

#include <algorithm>

#include "ctl/layout.h"

namespace keyview::ctl {

void line_maker::add_fitting(const std::string &text, size_t width, unsigned styles) {
    if (width == 0) return;
    std::string fits = shortened(text, width, true);
    const size_t cut = fits == text ? fits.npos : fits.rfind("…");
    if (ascii_ && cut != fits.npos) fits.replace(cut, std::string("…").size(), "~");
    line_.push_back({fits, styles | styles_});
    left_ -= std::min(left_, width_of_text(fits));
}

void line_maker::add(const std::string &text, unsigned styles) {
    add_fitting(text, left_, styles);
}

void line_maker::add_cell(const std::string &text, size_t width, unsigned styles) {
    const size_t end = left_ - std::min(left_, width);
    add_fitting(text, std::min(width, left_), styles);
    fill_to(end - std::min<size_t>(end, 1));
}

void line_maker::fill_to(size_t columns_left, const char *with) {
    std::string text;
    for (; left_ > columns_left; --left_)
        text += with;
    if (!text.empty()) line_.push_back({text, styles_});
}

screen_line line_maker::take() {
    fill_to(0);
    return std::move(line_);
}

}  // namespace keyview::ctl
