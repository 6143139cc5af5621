// The cluster's configuration library: zor.conf and its policies, read with pugixml.
//
// Every document is parsed once, when it is loaded, and kept in memory; a
// read walks the tree along the path. All state lives behind one mutex: the
// agent's worker threads read values while its main thread waits, and the
// library must not rely on that courtesy.
#include "zorxml.h"
#include "zorhome.h"

#include <pugixml.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace {

// A path is at most this long (the callers' path buffers hold 1024 bytes).
constexpr size_t kMaxPath = 1023;
// A policy name becomes a file name below $ZOR_HOME/etc/policy.
constexpr size_t kMaxPolicyName = 255;

struct Segment {
    std::string_view elem;
    std::string_view name;  // value of the name attribute; empty when the segment has no '@'
    bool named = false;
};

// Named children of a parent with many children are found through an index:
// a cluster of thousands of resources has thousands of <disk name=...>
// siblings, and every read of a per-server value also looks for a
// <server name=...> beside each element of its path. The index of a parent is
// built the first time a name is looked up under it, so that loading stays a
// parse (an agent reads a handful of values), and a parent of few children is
// simply scanned. The views point into the document's own strings.
constexpr size_t kIndexFrom = 32;  // element children from which a parent gets an index

struct NamedKey {
    const void* parent;
    std::string_view elem;
    std::string_view name;
    bool operator==(const NamedKey&) const = default;
};

struct NamedKeyHash {
    size_t operator()(const NamedKey& k) const
    {
        size_t h = std::hash<const void*>()(k.parent);
        h ^= std::hash<std::string_view>()(k.elem) + 0x9e3779b97f4a7c15ULL + (h << 6) + (h >> 2);
        h ^= std::hash<std::string_view>()(k.name) + 0x9e3779b97f4a7c15ULL + (h << 6) + (h >> 2);
        return h;
    }
};

struct Config {
    pugi::xml_document doc;
    // Built on demand by the reads, which all run under the library's mutex.
    mutable std::unordered_map<NamedKey, pugi::xml_node, NamedKeyHash> named;
    mutable std::unordered_map<const void*, bool> indexed;  // parent -> has an index (false: few children)

    // Looked up by the first in document order, as a plain scan finds it.
    pugi::xml_node find_named(const pugi::xml_node& parent, std::string_view elem,
                              std::string_view name) const
    {
        bool use_index = false;
        try {
            auto [slot, fresh] = indexed.try_emplace(parent.internal_object(), false);
            if (fresh) {
                size_t count = 0;
                for (pugi::xml_node c = parent.first_child(); c && count < kIndexFrom; c = c.next_sibling()) {
                    count += c.type() == pugi::node_element;
                }
                if (count >= kIndexFrom) {
                    for (pugi::xml_node c = parent.first_child(); c; c = c.next_sibling()) {
                        pugi::xml_attribute a;
                        if (c.type() == pugi::node_element && (a = c.attribute("name"))) {
                            named.emplace(NamedKey{parent.internal_object(), c.name(), a.value()}, c);
                        }
                    }
                    slot->second = true;
                }
            }
            use_index = slot->second;
        } catch (const std::bad_alloc&) {
            use_index = false;  // short of memory: the scan below finds the same element
        }
        if (use_index) {
            auto it = named.find(NamedKey{parent.internal_object(), elem, name});
            return it == named.end() ? pugi::xml_node() : it->second;
        }
        // The callers' names are never empty, so an element without the
        // attribute (value "") never matches.
        for (pugi::xml_node c = parent.first_child(); c; c = c.next_sibling()) {
            if (c.type() == pugi::node_element && elem == c.name() && name == c.attribute("name").value()) {
                return c;
            }
        }
        return pugi::xml_node();
    }
};

struct Policy {
    std::string name;
    std::unique_ptr<Config> conf;  // null when the policy has no file
};

struct State {
    std::mutex mu;
    bool initialized = false;
    std::string type;
    std::vector<Policy> policies;  // in load order; searched from the back
    std::unique_ptr<Config> defconf;
    std::vector<std::unique_ptr<Config>> alternates;
    Config* alternate = nullptr;  // the current alternate configuration; null: the default one
};

State& state()
{
    static State s;
    return s;
}

// Splits "/root/a/b@c" into segments. Returns false for anything that is not
// a well-formed path: no leading '/', empty segments, a trailing '/', an '@'
// with nothing before or after it.
bool split_path(const char* path, std::vector<Segment>& out)
{
    if (path == nullptr || path[0] != '/') {
        return false;
    }
    size_t len = strnlen(path, kMaxPath + 1);
    if (len > kMaxPath) {
        return false;
    }
    std::string_view rest(path + 1, len - 1);
    while (true) {
        size_t slash = rest.find('/');
        std::string_view seg = rest.substr(0, slash);
        if (seg.empty()) {
            return false;
        }
        Segment s;
        size_t at = seg.find('@');
        if (at == std::string_view::npos) {
            s.elem = seg;
        } else {
            s.elem = seg.substr(0, at);
            s.name = seg.substr(at + 1);
            s.named = true;
            if (s.elem.empty() || s.name.empty()) {
                return false;
            }
        }
        out.push_back(s);
        if (slash == std::string_view::npos) {
            return true;
        }
        rest = rest.substr(slash + 1);
    }
}

bool matches(const pugi::xml_node& node, const Segment& seg)
{
    if (node.type() != pugi::node_element || seg.elem != node.name()) {
        return false;
    }
    return !seg.named || seg.name == node.attribute("name").value();
}

pugi::xml_node child_of(const Config& conf, const pugi::xml_node& parent, const Segment& seg)
{
    if (seg.named) {
        return conf.find_named(parent, seg.elem, seg.name);
    }
    for (pugi::xml_node c = parent.first_child(); c; c = c.next_sibling()) {
        if (matches(c, seg)) {
            return c;
        }
    }
    return pugi::xml_node();
}

// Follows segs[from..] below node; a null node when any step is missing.
pugi::xml_node descend(const Config& conf, pugi::xml_node node, const std::vector<Segment>& segs, size_t from)
{
    for (size_t i = from; i < segs.size() && node; i++) {
        node = child_of(conf, node, segs[i]);
    }
    return node;
}

// The element a path names in one document. The first segment names the
// document element itself. With a server, a <server name="SERVER"> element
// met along the way may hold the rest of the path; the deepest one that does
// wins over the common element.
pugi::xml_node resolve(const Config& conf, const std::vector<Segment>& segs, const char* server)
{
    pugi::xml_node node = conf.doc.document_element();
    if (!node || !matches(node, segs[0])) {
        return pugi::xml_node();
    }
    bool per_server = server != nullptr && server[0] != '\0';
    pugi::xml_node chosen;
    for (size_t i = 1; i <= segs.size(); i++) {
        if (per_server) {
            pugi::xml_node srv = conf.find_named(node, "server", server);
            if (srv) {
                pugi::xml_node cand = descend(conf, srv, segs, i);
                if (cand) {
                    chosen = cand;
                }
            }
        }
        if (i == segs.size()) {
            break;
        }
        node = child_of(conf, node, segs[i]);
        if (!node) {
            break;
        }
    }
    return chosen ? chosen : node;
}

// The documents a value is looked up in, in order: the current configuration,
// then the policies, the last loaded first.
std::vector<const Config*> search_order(State& st)
{
    std::vector<const Config*> order;
    const Config* cur = st.alternate != nullptr ? st.alternate : st.defconf.get();
    order.push_back(cur);
    for (auto it = st.policies.rbegin(); it != st.policies.rend(); ++it) {
        if (it->conf) {
            order.push_back(it->conf.get());
        }
    }
    return order;
}

// The text of an element: its own text children (not those of child
// elements), trimmed of surrounding white space. Text that comes before any
// child is kept in the element itself (parse_embed_pcdata): one node less per
// value, which is most of a large configuration's nodes.
int element_text(const pugi::xml_node& node, std::string& out)
{
    out.clear();
    const char* own = node.value();
    bool has_text = own[0] != '\0';
    bool has_elements = false;
    out += own;
    for (pugi::xml_node c = node.first_child(); c; c = c.next_sibling()) {
        if (c.type() == pugi::node_pcdata || c.type() == pugi::node_cdata) {
            out += c.value();
            has_text = true;
        } else if (c.type() == pugi::node_element) {
            has_elements = true;
        }
    }
    // An element that only holds other elements is a branch, not a value.
    if (!has_text && has_elements) {
        return ZOR_XMLERR_NOTEXIST_VALUE;
    }
    const char* ws = " \t\r\n";
    size_t b = out.find_first_not_of(ws);
    if (b == std::string::npos) {
        out.clear();
    } else {
        size_t e = out.find_last_not_of(ws);
        out = out.substr(b, e - b + 1);
    }
    return ZOR_XMLERR_SUCCESS;
}

// A decimal 32-bit signed integer with an optional sign, nothing else.
bool parse_int(const std::string& text, int& out)
{
    size_t i = 0;
    bool neg = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
        neg = text[i] == '-';
        i++;
    }
    if (i == text.size()) {
        return false;
    }
    long long v = 0;
    for (; i < text.size(); i++) {
        if (text[i] < '0' || text[i] > '9') {
            return false;
        }
        v = v * 10 + (text[i] - '0');
        if (v > static_cast<long long>(INT_MAX) + 1) {
            return false;
        }
    }
    if (neg) {
        v = -v;
    }
    if (v < INT_MIN || v > INT_MAX) {
        return false;
    }
    out = static_cast<int>(v);
    return true;
}

int store_value(const std::string& text, int type, void* value, int* size)
{
    if (type == ZOR_XML_INT) {
        int v = 0;
        if (!parse_int(text, v)) {
            return ZOR_XMLERR_INVALID_CONTENTS;
        }
        if (value == nullptr || *size < static_cast<int>(sizeof(int))) {
            *size = sizeof(int);
            return ZOR_XMLERR_NOTENOUGH_SIZE;
        }
        memcpy(value, &v, sizeof(int));
        *size = sizeof(int);
        return ZOR_XMLERR_SUCCESS;
    }
    if (text.size() >= static_cast<size_t>(INT_MAX)) {
        return ZOR_XMLERR_INVALID_CONTENTS;
    }
    int need = static_cast<int>(text.size()) + 1;
    if (value == nullptr || *size < need) {
        *size = need;
        return ZOR_XMLERR_NOTENOUGH_SIZE;
    }
    memcpy(value, text.c_str(), static_cast<size_t>(need));
    *size = need;
    return ZOR_XMLERR_SUCCESS;
}

// Reads a whole regular file with one read (a second only when it grew) into
// a buffer of pugixml's allocator, which the document takes over.
int read_file(const std::string& file, char*& buf, size_t& len)
{
    int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        return errno == ENOENT || errno == ENOTDIR ? ZOR_XMLERR_NOTEXIST_PATH : ZOR_XMLERR_INVALID_XML;
    }
    // Only a regular file: a directory or a FIFO in its place must not hang
    // or confuse the parser (O_NONBLOCK: opening a FIFO does not wait).
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size <= 0 ||
        static_cast<unsigned long long>(st.st_size) >= SIZE_MAX / 2) {
        close(fd);
        return ZOR_XMLERR_INVALID_XML;
    }
    size_t cap = static_cast<size_t>(st.st_size) + 1;  // one more byte shows a file that grew
    len = 0;
    buf = static_cast<char*>(pugi::get_memory_allocation_function()(cap));
    if (buf == nullptr) {
        close(fd);
        return ZOR_XMLERR_OTHER;
    }
    while (true) {
        ssize_t n = read(fd, buf + len, cap - len);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            pugi::get_memory_deallocation_function()(buf);
            close(fd);
            return ZOR_XMLERR_INVALID_XML;
        }
        if (n == 0) {
            break;
        }
        len += static_cast<size_t>(n);
        if (len == cap) {
            // Written to while we read: take the rest as well.
            size_t bigger = cap * 2;
            char* grown = static_cast<char*>(pugi::get_memory_allocation_function()(bigger));
            if (grown == nullptr) {
                pugi::get_memory_deallocation_function()(buf);
                close(fd);
                return ZOR_XMLERR_OTHER;
            }
            memcpy(grown, buf, len);
            pugi::get_memory_deallocation_function()(buf);
            buf = grown;
            cap = bigger;
        }
    }
    close(fd);
    return ZOR_XMLERR_SUCCESS;
}

// Parses one file. Missing: ZOR_XMLERR_NOTEXIST_PATH; unreadable, empty,
// malformed or without a <root> element: ZOR_XMLERR_INVALID_XML.
int load_file(const std::string& file, std::unique_ptr<Config>& out)
{
    char* buf = nullptr;
    size_t len = 0;
    int ret = read_file(file, buf, len);
    if (ret != ZOR_XMLERR_SUCCESS) {
        return ret;
    }
    auto conf = std::unique_ptr<Config>(new (std::nothrow) Config);
    if (!conf) {
        pugi::get_memory_deallocation_function()(buf);
        return ZOR_XMLERR_OTHER;
    }
    // Parsed where it lies: no second copy of the file. Comments and
    // processing instructions are skipped, as a reader wants.
    pugi::xml_parse_result res = conf->doc.load_buffer_inplace_own(
        buf, len, pugi::parse_default | pugi::parse_embed_pcdata, pugi::encoding_auto);
    if (res.status == pugi::status_out_of_memory) {
        return ZOR_XMLERR_OTHER;
    }
    if (!res) {
        return ZOR_XMLERR_INVALID_XML;
    }
    pugi::xml_node root = conf->doc.document_element();
    if (!root || std::string_view(root.name()) != "root") {
        return ZOR_XMLERR_INVALID_XML;
    }
    out = std::move(conf);
    return ZOR_XMLERR_SUCCESS;
}

bool valid_policy_name(const char* name)
{
    size_t len = strnlen(name, kMaxPolicyName + 1);
    if (len > kMaxPolicyName) {
        return false;
    }
    std::string_view n(name, len);
    return n.find('/') == std::string_view::npos && n != "." && n != "..";
}

// Common checks of the read calls; returns 0 when the library is ready.
int ready(const State& st)
{
    if (!st.initialized) {
        return ZOR_XMLERR_NOT_INIT;
    }
    if (st.alternate == nullptr && !st.defconf) {
        return ZOR_XMLERR_NOT_LOAD;
    }
    return ZOR_XMLERR_SUCCESS;
}

int get_value_locked(State& st, const char* server, const char* path, int type, void* value, int* size)
{
    int ret = ready(st);
    if (ret != ZOR_XMLERR_SUCCESS) {
        return ret;
    }
    if (size == nullptr || (type != ZOR_XML_STRING && type != ZOR_XML_INT)) {
        return ZOR_XMLERR_OTHER;
    }
    std::vector<Segment> segs;
    if (!split_path(path, segs)) {
        return ZOR_XMLERR_INVALID_PATH;
    }
    for (const Config* conf : search_order(st)) {
        if (conf == nullptr) {
            continue;
        }
        pugi::xml_node node = resolve(*conf, segs, server);
        if (!node) {
            continue;
        }
        std::string text;
        ret = element_text(node, text);
        if (ret != ZOR_XMLERR_SUCCESS) {
            return ret;
        }
        return store_value(text, type, value, size);
    }
    return ZOR_XMLERR_NOTEXIST_PATH;
}

}  // namespace

int xmllib_init(const char* type)
{
    if (type == nullptr) {
        return ZOR_XMLERR_OTHER;
    }
    State& st = state();
    std::lock_guard<std::mutex> lock(st.mu);
    if (st.initialized) {
        return ZOR_XMLERR_OTHER;
    }
    st.type = type;
    st.initialized = true;
    return ZOR_XMLERR_SUCCESS;
}

int xmllib_load_policy(const char* name)
{
    if (name == nullptr) {
        return ZOR_XMLERR_INVALID_PATH;
    }
    State& st = state();
    std::lock_guard<std::mutex> lock(st.mu);
    if (!st.initialized) {
        return ZOR_XMLERR_NOT_INIT;
    }
    // A run under an unknown program name has an empty type, and with it an
    // empty policy name: there is nothing to load, and that is no error.
    if (name[0] == '\0') {
        return ZOR_XMLERR_SUCCESS;
    }
    if (!valid_policy_name(name)) {
        return ZOR_XMLERR_INVALID_PATH;
    }
    std::string rel = std::string("etc/policy/") + name + ".xml";
    char file[4096];
    if (zor_home_path(file, sizeof(file), rel.c_str()) != 0) {
        return ZOR_XMLERR_INVALID_PATH;
    }
    Policy pol;
    pol.name = name;
    int ret = load_file(file, pol.conf);
    // No policy file means no defaults; a broken one must not be ignored.
    if (ret != ZOR_XMLERR_SUCCESS && ret != ZOR_XMLERR_NOTEXIST_PATH) {
        return ret;
    }
    st.policies.push_back(std::move(pol));
    return ZOR_XMLERR_SUCCESS;
}

int xmllib_load_config(void)
{
    State& st = state();
    std::lock_guard<std::mutex> lock(st.mu);
    if (!st.initialized) {
        return ZOR_XMLERR_NOT_INIT;
    }
    char file[4096];
    if (zor_home_path(file, sizeof(file), "etc/zor.conf") != 0) {
        return ZOR_XMLERR_INVALID_PATH;
    }
    std::unique_ptr<Config> conf;
    int ret = load_file(file, conf);
    if (ret != ZOR_XMLERR_SUCCESS) {
        return ret;
    }
    st.defconf = std::move(conf);
    return ZOR_XMLERR_SUCCESS;
}

int xmllib_unload_config(void)
{
    State& st = state();
    std::lock_guard<std::mutex> lock(st.mu);
    if (!st.initialized) {
        return ZOR_XMLERR_NOT_INIT;
    }
    if (!st.defconf) {
        return ZOR_XMLERR_NOT_LOAD;
    }
    st.defconf.reset();
    return ZOR_XMLERR_SUCCESS;
}

int xmllib_unload_policy(const char* name)
{
    if (name == nullptr) {
        return ZOR_XMLERR_INVALID_PATH;
    }
    State& st = state();
    std::lock_guard<std::mutex> lock(st.mu);
    if (!st.initialized) {
        return ZOR_XMLERR_NOT_INIT;
    }
    if (name[0] == '\0') {
        return ZOR_XMLERR_SUCCESS;
    }
    for (auto it = st.policies.rbegin(); it != st.policies.rend(); ++it) {
        if (it->name == name) {
            st.policies.erase(std::next(it).base());
            return ZOR_XMLERR_SUCCESS;
        }
    }
    return ZOR_XMLERR_NOT_LOAD;
}

int xmllib_term(void)
{
    State& st = state();
    std::lock_guard<std::mutex> lock(st.mu);
    if (!st.initialized) {
        return ZOR_XMLERR_NOT_INIT;
    }
    // Whatever is still loaded goes with the library: a caller that gives up
    // half-way must still be able to start again.
    st.alternate = nullptr;
    st.alternates.clear();
    st.defconf.reset();
    st.policies.clear();
    st.type.clear();
    st.initialized = false;
    return ZOR_XMLERR_SUCCESS;
}

int xmllib_get_value(const char* path, int type, void* value, int* size)
{
    State& st = state();
    std::lock_guard<std::mutex> lock(st.mu);
    return get_value_locked(st, nullptr, path, type, value, size);
}

int xmllib_get_srvsep_value(const char* server, const char* path, int type, void* value, int* size)
{
    State& st = state();
    std::lock_guard<std::mutex> lock(st.mu);
    return get_value_locked(st, server, path, type, value, size);
}

int xmllib_enum_value(const char* path, void* value, int* size)
{
    State& st = state();
    std::lock_guard<std::mutex> lock(st.mu);
    int ret = ready(st);
    if (ret != ZOR_XMLERR_SUCCESS) {
        return ret;
    }
    if (size == nullptr) {
        return ZOR_XMLERR_OTHER;
    }
    std::vector<Segment> segs;
    if (!split_path(path, segs)) {
        return ZOR_XMLERR_INVALID_PATH;
    }
    if (segs.size() < 2) {
        return ZOR_XMLERR_INVALID_PATH;  // the document element has no siblings to list
    }
    const Segment& last = segs.back();
    std::vector<Segment> parent_segs(segs.begin(), segs.end() - 1);
    for (const Config* conf : search_order(st)) {
        if (conf == nullptr) {
            continue;
        }
        pugi::xml_node parent = resolve(*conf, parent_segs, nullptr);
        if (!parent) {
            continue;
        }
        std::vector<const char*> names;
        for (pugi::xml_node c = parent.first_child(); c; c = c.next_sibling()) {
            if (!matches(c, last) || !c.attribute("name")) {
                continue;
            }
            const char* n = c.attribute("name").value();
            // A name that does not fit its slot would be compared cut short.
            if (strlen(n) >= ZOR_XML_ENUM_SLOT) {
                return ZOR_XMLERR_INVALID_CONTENTS;
            }
            names.push_back(n);
        }
        if (names.size() > static_cast<size_t>(INT_MAX / ZOR_XML_ENUM_SLOT)) {
            return ZOR_XMLERR_OTHER;
        }
        int need = static_cast<int>(names.size()) * ZOR_XML_ENUM_SLOT;
        if (need == 0) {
            *size = 0;
            return ZOR_XMLERR_SUCCESS;
        }
        if (value == nullptr || *size < need) {
            *size = need;
            return ZOR_XMLERR_NOTENOUGH_SIZE;
        }
        char* out = static_cast<char*>(value);
        memset(out, 0, static_cast<size_t>(need));
        for (size_t i = 0; i < names.size(); i++) {
            memcpy(out + i * ZOR_XML_ENUM_SLOT, names[i], strlen(names[i]));
        }
        *size = need;
        return ZOR_XMLERR_SUCCESS;
    }
    return ZOR_XMLERR_NOTEXIST_PATH;
}

int xmllib_load_pathconfig(const char* path, void** handle)
{
    if (handle == nullptr) {
        return ZOR_XMLERR_INVALID_HANDLE;
    }
    *handle = nullptr;
    if (path == nullptr || path[0] == '\0' || strnlen(path, 4096) >= 4096) {
        return ZOR_XMLERR_INVALID_PATH;
    }
    State& st = state();
    std::lock_guard<std::mutex> lock(st.mu);
    if (!st.initialized) {
        return ZOR_XMLERR_NOT_INIT;
    }
    std::unique_ptr<Config> conf;
    int ret = load_file(path, conf);
    if (ret != ZOR_XMLERR_SUCCESS) {
        return ret;
    }
    *handle = conf.get();
    st.alternates.push_back(std::move(conf));
    return ZOR_XMLERR_SUCCESS;
}

int xmllib_change_config(void* handle)
{
    State& st = state();
    std::lock_guard<std::mutex> lock(st.mu);
    if (!st.initialized) {
        return ZOR_XMLERR_NOT_INIT;
    }
    if (handle == nullptr) {
        st.alternate = nullptr;
        return st.defconf ? ZOR_XMLERR_SUCCESS : ZOR_XMLERR_NOT_LOAD;
    }
    // Only handles this library gave out and has not taken back are accepted.
    for (auto& alt : st.alternates) {
        if (alt.get() == handle) {
            st.alternate = alt.get();
            return ZOR_XMLERR_SUCCESS;
        }
    }
    return ZOR_XMLERR_INVALID_HANDLE;
}

int xmllib_unload_pathconfig(void* handle)
{
    State& st = state();
    std::lock_guard<std::mutex> lock(st.mu);
    if (!st.initialized) {
        return ZOR_XMLERR_NOT_INIT;
    }
    for (auto it = st.alternates.begin(); it != st.alternates.end(); ++it) {
        if (it->get() == handle && handle != nullptr) {
            // Unloading the current configuration makes the default one current again.
            if (st.alternate == it->get()) {
                st.alternate = nullptr;
            }
            st.alternates.erase(it);
            return ZOR_XMLERR_SUCCESS;
        }
    }
    return ZOR_XMLERR_INVALID_HANDLE;
}
