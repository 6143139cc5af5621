// Builds a cluster configuration document from a list of paths and values.
//
// A path is relative to <root>; a segment "a@b" is the element <a name="b">,
// as the configuration library addresses it. Elements are created in the
// order their paths first appear.
#pragma once

#include <string>
#include <utility>
#include <vector>

using ConfKeys = std::vector<std::pair<std::string, std::string>>;

class ConfBuilder {
public:
    explicit ConfBuilder(const ConfKeys& keys)
    {
        for (const auto& kv : keys) {
            Elem* e = &root_;
            size_t start = 0;
            const std::string& path = kv.first;
            while (start <= path.size()) {
                size_t slash = path.find('/', start);
                std::string seg =
                    path.substr(start, slash == std::string::npos ? std::string::npos : slash - start);
                e = e->child(seg);
                if (slash == std::string::npos) {
                    break;
                }
                start = slash + 1;
            }
            e->text = kv.second;
        }
    }

    std::string xml() const
    {
        std::string out = "<?xml version=\"1.0\"?>\n<root>";
        for (const Elem& k : root_.kids) {
            k.print(out);
        }
        return out + "</root>\n";
    }

private:
    struct Elem {
        std::string tag;
        std::string name;
        bool named = false;
        std::string text;
        std::vector<Elem> kids;

        Elem* child(const std::string& seg)
        {
            size_t at = seg.find('@');
            std::string t = seg.substr(0, at);
            std::string n = at == std::string::npos ? "" : seg.substr(at + 1);
            for (Elem& k : kids) {
                if (k.tag == t && k.name == n && k.named == (at != std::string::npos)) {
                    return &k;
                }
            }
            kids.push_back(Elem{t, n, at != std::string::npos, "", {}});
            return &kids.back();
        }

        void print(std::string& out) const
        {
            out += "<" + tag;
            if (named) {
                out += " name=\"" + name + "\"";
            }
            out += ">" + text;
            for (const Elem& k : kids) {
                k.print(out);
            }
            out += "</" + tag + ">";
        }
    };
    Elem root_;
};

// keys without the entries whose path is `path` or lies beneath it.
inline ConfKeys without(ConfKeys keys, const std::string& path)
{
    ConfKeys out;
    for (auto& kv : keys) {
        if (kv.first != path && kv.first.rfind(path + "/", 0) != 0) {
            out.push_back(std::move(kv));
        }
    }
    return out;
}

// keys with the value at `path` replaced or added.
inline ConfKeys with(ConfKeys keys, const std::string& path, const std::string& value)
{
    for (auto& kv : keys) {
        if (kv.first == path) {
            kv.second = value;
            return keys;
        }
    }
    keys.emplace_back(path, value);
    return keys;
}
