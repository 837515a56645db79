// A part of the registry in memory, as a tree, for a writer that must account for every key.
#pragma once

#include <map>
#include <string>
#include <string_view>

namespace keyview::admin {

struct key_node {
    std::string value;
    bool told = false;  // the document says it, or a problem names it
    std::map<std::string, key_node, std::less<>> children;

    // The key of a dotted path below this one, or null.
    key_node *find(std::string_view path) {
        key_node *node = this;
        while (node != nullptr && !path.empty()) {
            size_t end = path.find('.');
            auto child = node->children.find(path.substr(0, end));
            node = child == node->children.end() ? nullptr : &child->second;
            path.remove_prefix(end == path.npos ? path.size() : end + 1);
        }
        return node;
    }

    // The same, made with empty values where it is missing.
    key_node &make(std::string_view path) {
        size_t end = path.find('.');
        key_node &child = children[std::string(path.substr(0, end))];
        return end == path.npos ? child : child.make(path.substr(end + 1));
    }
};

}  // namespace keyview::admin
