// See picture.h.
#include "ctl/picture.h"

#include <algorithm>
#include <map>
#include <utility>
#include <vector>

#include "ctl/layout.h"
#include "ctl/text.h"
#include "model/folding.h"

namespace keyview::ctl {

// ---- What is where ------------------------------------------------------------------------------

namespace {

enum class mark_kind { instance, preferred, available };

struct mark {
    mark_kind kind;
    std::string name;
    bool enabled;
};

struct map_line {
    std::string label;
    bool enabled;
    std::map<size_t, std::vector<mark>> marks;  // by the number of the node
};

// Texts are escaped.
struct database_map {
    std::string title;
    std::vector<std::string> nodes;
    std::vector<map_line> lines;  // the first one is that of the instances
};

}  // namespace

static constexpr const char *MARK_WORDS[] = {"instance", "preferred", "available"};

static const char *word_of(mark_kind kind) {
    return MARK_WORDS[static_cast<size_t>(kind)];
}

static std::string plain_text(std::string_view text) {
    return escaped(text_or_dash(text));
}

static const char *off(bool enabled) {
    return enabled ? "" : " (disabled)";
}

static database_map map_of(const prsr::database &record) {
    database_map out;
    std::map<std::string, size_t> node_of;  // the instances, by their elements
    auto node_number = [&](const std::string &node) {
        const auto known = std::find(out.nodes.begin(), out.nodes.end(), node);
        if (known == out.nodes.end()) out.nodes.push_back(node);
        return static_cast<size_t>(std::find(out.nodes.begin(), out.nodes.end(), node) -
                                   out.nodes.begin());
    };
    out.title = "database " + plain_text(record.sp_name()) + ": " +
                (record.enabled() ? "enabled" : "disabled") + ", role " + plain_text(record.role());
    map_line instances = {"instances", true, {}};
    for (const prsr::instance &one : record.instances()) {
        const size_t node = node_number(plain_text(one.node()));
        node_of[element_of(one.name())] = node;
        instances.marks[node].push_back(
            {mark_kind::instance, plain_text(one.name()), one.enabled() != 0});
    }
    out.lines.push_back(std::move(instances));
    for (const prsr::service &service : record.services()) {
        map_line line = {plain_text(service.name()), service.enabled() != 0, {}};
        auto add = [&](mark_kind kind, const prsr::service_instance_list &listed) {
            for (const prsr::service_instance &one : listed) {
                const auto known = node_of.find(element_of(one.name));
                const size_t node =
                    known != node_of.end() ? known->second : node_number("(no node)");
                line.marks[node].push_back({kind, plain_text(one.name), one.enabled});
            }
        };
        add(mark_kind::preferred, service.preferred());
        add(mark_kind::available, service.available());
        out.lines.push_back(std::move(line));
    }
    return out;
}

// ---- SVG ----------------------------------------------------------------------------------------

static std::string xml_text(const std::string &text) {
    std::string out;
    for (char byte : text) {
        const char *entity = byte == '&'   ? "&amp;"
                             : byte == '<' ? "&lt;"
                             : byte == '>' ? "&gt;"
                             : byte == '"' ? "&quot;"
                                           : nullptr;
        out += entity != nullptr ? entity : std::string(1, byte);
    }
    return out;
}

static constexpr char SVG_STYLE[] =
    "<style>svg{color-scheme:light dark;--back:#fff;--fore:#1b1f24;--line:#d0d7de;--good:#116329;"
    "--bad:#b3261e}@media(prefers-color-scheme:dark){svg{--back:#12161b;--fore:#e6edf3;"
    "--line:#39424d;--good:#56d364;--bad:#ff8f87}}text{font:12px monospace;fill:var(--fore)}"
    ".head{font-weight:bold}.on{color:var(--good)}.off{color:var(--bad)}"
    "line{stroke:var(--line)}</style>\n";

namespace {

// Draws a map into cells: the first column has the labels, each other one a node.
class svg_drawing {
  public:
    explicit svg_drawing(const database_map &map) : map_(map) {
        size_t widest = 0;
        for (const map_line &line : map.lines)
            widest = std::max(widest, width_of_text(label_of(line)));
        columns_.push_back(widest);
        for (size_t node = 0; node < map.nodes.size(); ++node) {
            widest = width_of_text(cut(map.nodes[node]));
            for (const map_line &line : map.lines)
                for (const mark &one : marks_of(line, node))
                    widest = std::max(widest, width_of_text(cut(one.name)) + 3);
            columns_.push_back(widest);
        }
    }

    std::string draw() {
        y_ = LINE_HEIGHT;
        add_text(GAP, map_.title, "head");
        next_line();
        for (size_t node = 0; node < map_.nodes.size(); ++node)
            add_text(left_of(node + 1), cut(map_.nodes[node]), "head", map_.nodes[node]);
        for (const map_line &line : map_.lines)
            add_line(line);
        y_ += GAP;
        add_legend();
        const size_t title = GAP * 2 + width_of_text(map_.title) * COLUMN,
                     width = std::max({left_of(columns_.size()), title, LEGEND_WIDTH});
        const std::string size =
            std::to_string(width) + "\" height=\"" + std::to_string(y_ + GAP) + "\"";
        return "<svg xmlns=\"http://www.w3.org/2000/svg\" role=\"img\" aria-labelledby=\"t d\" "
               "width=\"" +
               size + " viewBox=\"0 0 " + std::to_string(width) + " " + std::to_string(y_ + GAP) +
               "\">\n<title id=\"t\">" + xml_text(map_.title) + "</title>\n<desc id=\"d\">" +
               xml_text(description_) + "</desc>\n" + SVG_STYLE + "<rect width=\"" + size +
               " fill=\"var(--back)\"/>\n" + out_ + "</svg>\n";
    }

  private:
    static constexpr size_t LINE_HEIGHT = 20, GAP = 12, COLUMN = 8, LONGEST = 32,
                            LEGEND_WIDTH = 560;

    static std::string cut(const std::string &text) { return shortened(text, LONGEST); }
    static std::string label_of(const map_line &line) {
        return cut(line.label) + off(line.enabled);
    }
    static std::vector<mark> marks_of(const map_line &line, size_t node) {
        const auto found = line.marks.find(node);
        return found == line.marks.end() ? std::vector<mark>() : found->second;
    }

    // The left edge of a column.
    size_t left_of(size_t column) const {
        size_t left = GAP;
        for (size_t n = 0; n < column; ++n)
            left += columns_[n] * COLUMN + GAP;
        return left;
    }

    void next_line() { y_ += LINE_HEIGHT; }

    void add_text(size_t left, const std::string &text, const char *style = nullptr,
                  const std::string &whole = "") {
        out_ += "<text x=\"" + std::to_string(left) + "\" y=\"" + std::to_string(y_) + "\"";
        if (style != nullptr) out_ += std::string(" class=\"") + style + "\"";
        out_ += ">" + xml_text(text);
        if (!whole.empty() && whole != text) out_ += "<title>" + xml_text(whole) + "</title>";
        out_ += "</text>\n";
    }

    // A filled disk is preferred, a ring available, a square an instance; a bar is disabled.
    void add_symbol(size_t left, mark_kind kind, bool enabled) {
        const std::string x = std::to_string(left + 6), y = std::to_string(y_ - 4);
        out_ += std::string("<g class=\"") + (enabled ? "on" : "off") +
                "\" transform=\"translate(" + x + " " + y + ")\">";
        if (kind == mark_kind::instance) {
            out_ += "<rect x=\"-5\" y=\"-5\" width=\"10\" height=\"10\" fill=\"currentColor\"/>";
        } else {
            out_ += std::string(
                        "<circle r=\"4.5\" stroke-width=\"2\" stroke=\"currentColor\" fill=\"") +
                    (kind == mark_kind::preferred ? "currentColor" : "none") + "\"/>";
        }
        if (!enabled)
            out_ +=
                "<path d=\"M-6 6 6-6\" stroke=\"var(--back)\" stroke-width=\"5\"/>"
                "<path d=\"M-6 6 6-6\" stroke=\"currentColor\" stroke-width=\"2\"/>";
        out_ += "</g>\n";
    }

    void add_mark(size_t left, const mark &one, const std::string &node) {
        add_symbol(left, one.kind, one.enabled);
        add_text(left + 2 * COLUMN, cut(one.name), nullptr, one.name);
        description_ +=
            " " + one.name + " on " + node + ": " + word_of(one.kind) + off(one.enabled) + ".";
    }

    // As high as the cell with the most marks.
    void add_line(const map_line &line) {
        next_line();
        out_ += "<line x1=\"" + std::to_string(GAP) + "\" x2=\"" +
                std::to_string(left_of(columns_.size()) - GAP) + "\" y1=\"" +
                std::to_string(y_ - LINE_HEIGHT + 5) + "\" y2=\"" +
                std::to_string(y_ - LINE_HEIGHT + 5) + "\"/>\n";
        description_ += (description_.empty() ? "" : " ") + line.label + off(line.enabled) + ":";
        add_text(GAP, label_of(line), nullptr, line.label + off(line.enabled));
        const size_t top = y_;
        size_t bottom = y_;
        for (size_t node = 0; node < map_.nodes.size(); ++node) {
            y_ = top;
            for (const mark &one : marks_of(line, node)) {
                add_mark(left_of(node + 1), one, map_.nodes[node]);
                bottom = std::max(bottom, y_);
                next_line();
            }
        }
        y_ = bottom;
    }

    void add_legend() {
        next_line();
        size_t left = GAP;
        auto add = [&](mark_kind kind, bool enabled, const std::string &text) {
            add_symbol(left, kind, enabled);
            add_text(left + 2 * COLUMN, text);
            left += (text.size() + 4) * COLUMN;
        };
        add(mark_kind::instance, true, word_of(mark_kind::instance));
        add(mark_kind::preferred, true, word_of(mark_kind::preferred));
        add(mark_kind::available, true, word_of(mark_kind::available));
        add(mark_kind::preferred, false, "with a bar: disabled");
    }

    const database_map &map_;
    std::vector<size_t> columns_;  // their widths, in characters
    size_t y_ = 0;
    std::string out_, description_;
};

}  // namespace

std::string svg_of(const prsr::database &record) {
    const database_map map = map_of(record);
    return svg_drawing(map).draw();
}

// ---- DOT ----------------------------------------------------------------------------------------

// In a quoted string only the quote and, because labels have escapes of their own, the backslash are
// special.
static std::string dot_text(const std::string &text) {
    std::string out = "\"";
    for (char byte : text)
        out += (byte == '"' || byte == '\\' ? "\\" : "") + std::string(1, byte);
    return out + "\"";
}

std::string dot_of(const prsr::database &record) {
    const database_map map = map_of(record);
    std::string out = "digraph {\n  rankdir=LR;\n  node [fontname=\"sans-serif\"];\n  label=" +
                      dot_text(map.title) + ";\n";
    std::map<std::string, std::string> id_of;  // of the instances, by node and name
    for (size_t node = 0; node < map.nodes.size(); ++node) {
        const std::string number = std::to_string(node);
        out +=
            "  subgraph cluster_" + number + " {\n    label=" + dot_text(map.nodes[node]) + ";\n";
        for (const map_line &line : map.lines) {
            const auto found = line.marks.find(node);
            if (found == line.marks.end()) continue;
            for (const mark &one : found->second) {
                const std::string id = "i" + number + "_" + std::to_string(id_of.size());
                if (!id_of.emplace(number + " " + element_of(one.name), id).second) continue;
                const bool instance = one.kind == mark_kind::instance;
                out += "    " + id +
                       " [shape=box, style=" + (!instance || one.enabled ? "solid" : "dashed") +
                       ", label=" + dot_text(one.name + (instance ? off(one.enabled) : "")) +
                       "];\n";
            }
        }
        out += "  }\n";
    }
    for (size_t n = 1; n < map.lines.size(); ++n) {
        const map_line &line = map.lines[n];
        const std::string id = "s" + std::to_string(n);
        out += "  " + id + " [shape=ellipse, style=" + (line.enabled ? "solid" : "dashed") +
               ", label=" + dot_text(line.label + off(line.enabled)) + "];\n";
        for (const auto &[node, marks] : line.marks) {
            for (const mark &one : marks) {
                out += "  " + id + " -> " +
                       id_of[std::to_string(node) + " " + element_of(one.name)] +
                       " [style=" + (one.kind == mark_kind::preferred ? "bold" : "dashed") +
                       ", arrowhead=" + (one.enabled ? "normal" : "tee") +
                       ", label=" + dot_text(word_of(one.kind) + std::string(off(one.enabled))) +
                       "];\n";
            }
        }
    }
    return out + "}\n";
}

}  // namespace keyview::ctl
