// A handler of the parser's events that builds the value and knows where it is.
#include "admin/document/json_text.h"

#include <algorithm>
#include <string>
#include <vector>

namespace keyview::admin {

using nlohmann::json;

std::string line_and_column(std::string_view text, size_t offset) {
    text = text.substr(0, offset);
    auto lines = std::count(text.begin(), text.end(), '\n');
    text.remove_prefix(text.rfind('\n') + 1);  // npos + 1 is 0
    auto before =
        std::count_if(text.begin(), text.end(), [](char byte) { return (byte & 0xc0) != 0x80; });
    return "line " + std::to_string(lines + 1) + ", column " + std::to_string(before + 1);
}

// The parser's sentence without its number and place.
static std::string reason_of(const json::exception &error) {
    std::string text = error.what();
    size_t head = text.find("] ");
    if (head != text.npos) text.erase(0, head + 2);
    size_t place = text.find(": ");
    if (text.rfind("parse error", 0) == 0 && place != text.npos) text.erase(0, place + 2);
    return text;
}

namespace {

class json_builder : public nlohmann::json_sax<json> {
  public:
    json_builder(std::string_view text, json *root, problem_list *problems, const item_sink &item)
        : text_(text), root_(root), problems_(problems), deliver_(item) {}

    bool null() override { return place(nullptr); }
    bool boolean(bool value) override { return place(value); }
    bool number_integer(json::number_integer_t value) override { return place(value); }
    bool number_unsigned(json::number_unsigned_t value) override { return place(value); }
    bool number_float(json::number_float_t value, const std::string &) override {
        return place(value);
    }
    bool string(std::string &value) override { return place(std::move(value)); }
    bool binary(json::binary_t &) override { return false; }  // no JSON text holds one

    bool start_object(size_t) override { return open(json::object()); }
    bool end_object() override { return close(); }
    bool start_array(size_t) override { return open(json::array()); }
    bool end_array() override { return close(); }

    bool key(std::string &name) override {
        if (open_.back()->contains(name)) {
            problems_->add((pointer() / name).to_string(), "stands twice in its object");
        }
        name_ = name;
        return true;
    }

    bool parse_error(size_t position, const std::string &, const json::exception &error) override {
        size_t offset = position > 0 ? position - 1 : 0;
        problems_->add(line_and_column(text_, offset), reason_of(error));
        return false;
    }

  private:
    json *add(json &&value) {
        if (open_.empty()) return &(*root_ = std::move(value));
        json *parent = open_.back();
        if (at_item()) return &(item_ = std::move(value));
        if (parent->is_object()) return &((*parent)[name_] = std::move(value));
        parent->push_back(std::move(value));
        return &parent->back();
    }

    bool place(json &&value) {
        add(std::move(value));
        end_item();
        return true;
    }

    // Whether this is a list whose items are delivered, or within one.
    bool delivers() const {
        return deliver_ && open_.size() >= 2 && open_[0]->is_object() && open_[1]->is_array();
    }
    bool at_item() const { return open_.size() == 2 && delivers(); }

    void end_item() {
        if (at_item()) deliver_(names_[1], items_++, item_);
    }

    bool open(json &&empty) {
        // The name stays with the child, so that pointer() can tell the way.
        names_.push_back(name_);
        open_.push_back(add(std::move(empty)));
        if (open_.size() == 2) items_ = 0;
        return true;
    }

    bool close() {
        open_.pop_back();
        names_.pop_back();
        end_item();
        return true;
    }

    // The way to the innermost open object or array.
    json::json_pointer pointer() const {
        json::json_pointer way;
        for (size_t n = 1; n < open_.size(); ++n) {
            const json *parent = open_[n - 1];
            if (parent->is_object()) {
                way /= names_[n];
            } else {
                way /= n == 2 && delivers() ? items_ : parent->size() - 1;
            }
        }
        return way;
    }

    std::string_view text_;
    json *root_;
    problem_list *problems_;
    const item_sink &deliver_;
    json item_;
    size_t items_ = 0;  // of the list, so far
    std::vector<json *> open_;
    std::vector<std::string> names_;
    std::string name_;
};

}  // namespace

json parse_json(std::string_view text, problem_list *problems, const item_sink &item) {
    json root;
    json_builder builder(text, &root, problems, item);
    if (!json::sax_parse(text.begin(), text.end(), &builder)) return nullptr;
    return root;
}

}  // namespace keyview::admin
