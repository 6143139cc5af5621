// Builds a cluster configuration document from a list of paths and values.
//
// A path is relative to <root>; a segment "a@b" is the element <a name="b">,
// as the configuration library addresses it. Elements are created in the
// order their paths first appear.
#pragma once

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

using ConfKeys = std::vector<std::pair<std::string, std::string>>;

inline std::string conf_xml(const ConfKeys& keys)
{
    struct Elem {
        std::string seg;  // "tag" or "tag@name"
        std::string text;
        std::vector<Elem> kids;
        std::string print() const
        {
            const size_t at = seg.find('@');
            const std::string tag = seg.substr(0, at);
            std::string out =
                "<" + tag + (at == std::string::npos ? "" : " name=\"" + seg.substr(at + 1) + "\"");
            out += ">" + text;
            for (const Elem& k : kids) {
                out += k.print();
            }
            return out + "</" + tag + ">";
        }
    };
    Elem root{"root", "", {}};
    for (const auto& [path, value] : keys) {
        Elem* e = &root;
        for (size_t start = 0, slash = 0; slash != std::string::npos; start = slash + 1) {
            slash = path.find('/', start);
            const std::string seg = path.substr(start, slash == std::string::npos ? slash : slash - start);
            auto it =
                std::find_if(e->kids.begin(), e->kids.end(), [&](const Elem& k) { return k.seg == seg; });
            e = it != e->kids.end() ? &*it : &e->kids.emplace_back(Elem{seg, "", {}});
        }
        e->text = value;
    }
    return "<?xml version=\"1.0\"?>\n" + root.print() + "\n";
}

// keys without the entries whose path is `path` or lies beneath it.
inline ConfKeys without(ConfKeys keys, const std::string& path)
{
    std::erase_if(keys,
                  [&](const auto& kv) { return kv.first == path || kv.first.rfind(path + "/", 0) == 0; });
    return keys;
}

// keys with the value at `path` replaced or added.
inline ConfKeys with(ConfKeys keys, const std::string& path, const std::string& value)
{
    auto it = std::find_if(keys.begin(), keys.end(), [&](const auto& kv) { return kv.first == path; });
    if (it == keys.end()) {
        keys.emplace_back(path, value);
    } else {
        it->second = value;
    }
    return keys;
}
