// The cluster's configuration library: zor.conf and its policies, read with pugixml.
//
// A file is parsed whole when it is loaded, and the start and end of every
// element down to the third level (the resources of a cluster sit there) are
// kept in an index under $ZOR_HOME/var/xmlindex. While the file is the one the
// index was made from, a later load reads the index instead and parses only
// the elements a run asks for: an agent reads a few dozen values of one
// resource, and a cluster of a thousand resources must not make every action
// parse all of them. All state lives behind one mutex: the agent's worker
// threads read values while its main thread waits, and the library must not
// rely on that courtesy.
#include "zorxml.h"
#include "zorhome.h"
#include "zorsafe.h"
#include "zorxml_internal.h"

#include <pugixml.hpp>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
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
// The document element is level 1; the index holds levels 1 to 3.
constexpr unsigned kIndexDepth = 3;
constexpr uint32_t kNone = UINT32_MAX;
// A file changed this recently may still be written to within the same tick
// of its time stamps, unseen by them: it is not indexed yet.
long long settle_ms = 2000;

struct Segment {
    std::string_view elem;
    std::string_view name;  // value of the name attribute; empty when the segment has no '@'
    bool named = false;
};

// An element of the index, as the index file stores it: where the element
// stands in the file, its name and its name attribute (offsets into the names
// that follow the records), its parent (kNone for the document element) and
// its level. Records come in document order: a parent before its children.
struct IndexRecord {
    uint64_t begin, end;
    uint32_t name_off, name_len, attr_off, attr_len, parent;
    uint8_t depth, has_attr, pad[2];
};

// A place in a document: an entry of the index, or an element below it.
struct Node {
    uint32_t entry = kNone;
    pugi::xml_node xn;
    explicit operator bool() const
    {
        return entry != kNone || bool(xn);
    }
};

// Every lookup of a child is remembered: the reads of one run go down the
// same few paths again and again (every read of a per-server value also looks
// for a <server name=...> beside each element of its path), and a parent may
// have thousands of children (the <disk name=...> of a large cluster).
struct LookupKey {
    const void* parent;
    std::string elem;
    std::string name;
    bool any;  // the first <elem> whatever its name
    bool operator==(const LookupKey&) const = default;
};

struct LookupKeyHash {
    size_t operator()(const LookupKey& k) const
    {
        size_t h = std::hash<const void*>()(k.parent);
        h ^= std::hash<std::string>()(k.elem) + 0x9e3779b97f4a7c15ULL + (h << 6) + (h >> 2);
        h ^= std::hash<std::string>()(k.name) + 0x9e3779b97f4a7c15ULL + (h << 6) + (h >> 2);
        return h ^ k.any;
    }
};

// An open file descriptor, closed with its owner.
struct Fd {
    int fd = -1;
    Fd() = default;
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    Fd& operator=(Fd&& o) noexcept
    {
        std::swap(fd, o.fd);
        return *this;
    }
    ~Fd()
    {
        if (fd >= 0) {
            close(fd);
        }
    }
};

// A read-only mapping of a file, unmapped with its owner.
struct Mapping {
    void* addr = MAP_FAILED;
    size_t len = 0;
    Mapping() = default;
    Mapping(const Mapping&) = delete;
    Mapping& operator=(const Mapping&) = delete;
    Mapping& operator=(Mapping&& o) noexcept
    {
        std::swap(addr, o.addr);
        std::swap(len, o.len);
        return *this;
    }
    ~Mapping()
    {
        if (addr != MAP_FAILED) {
            munmap(addr, len);
        }
    }
};

struct Config {
    std::string file;
    Fd fd;  // an indexed file stays open: its elements are read from the file its index matched
    std::unique_ptr<pugi::xml_document> doc;  // the whole file; null when the index was read
    Mapping index_file;                       // the index, used in place, when it was read
    std::vector<IndexRecord> own_records;     // the index made from doc
    std::vector<char> own_names;
    bool from_index = false;
    // The index: records[0] is the document element. With each record, its
    // first child and next sibling in the index, and the element once parsed.
    const IndexRecord* records = nullptr;
    const char* names = nullptr;
    uint32_t count = 0;
    std::vector<uint32_t> first, next;
    std::vector<pugi::xml_node> nodes;
    // Filled on demand by the reads, which all run under the library's mutex.
    std::vector<std::unique_ptr<pugi::xml_document>> parts;  // elements parsed alone
    std::unordered_map<LookupKey, Node, LookupKeyHash> found;
    bool stale = false;  // the file no longer matches its index

    std::string_view name(uint32_t i) const
    {
        return {names + records[i].name_off, records[i].name_len};
    }
    std::string_view attr(uint32_t i) const
    {
        return {names + records[i].attr_off, records[i].attr_len};
    }
    const void* identity(const Node& n) const
    {
        return n.entry != kNone ? static_cast<const void*>(records + n.entry) : n.xn.internal_object();
    }
    pugi::xml_node element(uint32_t i);
    pugi::xml_node element(const Node& n)
    {
        return n.entry != kNone ? element(n.entry) : n.xn;
    }

    // Calls f(child, name, attr, has_attr) for each element child in document
    // order until it returns true; returns that child, or an empty Node.
    template <class F>
    Node find_child(const Node& parent, F f)
    {
        if (parent.entry != kNone && records[parent.entry].depth < kIndexDepth) {
            for (uint32_t c = first[parent.entry]; c != kNone; c = next[c]) {
                if (f(Node{c, {}}, name(c), attr(c), records[c].has_attr != 0)) {
                    return Node{c, {}};
                }
            }
            return Node();
        }
        for (pugi::xml_node c = element(parent).first_child(); c; c = c.next_sibling()) {
            if (c.type() != pugi::node_element) {
                continue;
            }
            pugi::xml_attribute a = c.attribute("name");
            if (f(Node{kNone, c}, std::string_view(c.name()), std::string_view(a.value()), bool(a))) {
                return Node{kNone, c};
            }
        }
        return Node();
    }

    // The first child element of that name and name attribute (any name
    // attribute with `any`), in document order.
    Node find_named(const Node& parent, std::string_view elem, std::string_view name, bool any = false)
    {
        auto scan = [&]() {
            // The callers' names are never empty, so an element without the
            // attribute (value "") never matches.
            return find_child(parent, [&](const Node&, std::string_view n, std::string_view a, bool) {
                return n == elem && (any || a == name);
            });
        };
        try {
            LookupKey key{identity(parent), std::string(elem), std::string(any ? "" : name), any};
            auto it = found.find(key);
            return it != found.end() ? it->second : found.emplace(std::move(key), scan()).first->second;
        } catch (const std::bad_alloc&) {
            return scan();  // short of memory: the scan alone finds the same element
        }
    }
};

// An element of an indexed file, parsed alone from its bytes. One that is not
// the element the index names marks the whole configuration stale.
pugi::xml_node Config::element(uint32_t i)
{
    const IndexRecord& e = records[i];
    if (nodes[i] || stale) {
        return nodes[i];
    }
    size_t len = static_cast<size_t>(e.end - e.begin);
    char* buf = static_cast<char*>(pugi::get_memory_allocation_function()(len == 0 ? 1 : len));
    bool ok =
        buf != nullptr && pread(fd.fd, buf, len, static_cast<off_t>(e.begin)) == static_cast<ssize_t>(len);
    auto part = std::unique_ptr<pugi::xml_document>(new (std::nothrow) pugi::xml_document);
    if (!ok || !part) {
        if (buf != nullptr) {
            pugi::get_memory_deallocation_function()(buf);
        }
        stale = true;
        return pugi::xml_node();
    }
    pugi::xml_parse_result res = part->load_buffer_inplace_own(
        buf, len, pugi::parse_default | pugi::parse_embed_pcdata, pugi::encoding_utf8);
    pugi::xml_node el = part->document_element();
    pugi::xml_attribute a = el.attribute("name");
    if (!res || name(i) != el.name() || (e.has_attr != 0) != bool(a) || attr(i) != a.value()) {
        stale = true;
        return pugi::xml_node();
    }
    nodes[i] = el;
    parts.push_back(std::move(part));
    return el;
}

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

bool matches(std::string_view name, std::string_view attr, const Segment& seg)
{
    return seg.elem == name && (!seg.named || seg.name == attr);
}

Node child_of(Config& conf, const Node& parent, const Segment& seg)
{
    return conf.find_named(parent, seg.elem, seg.name, !seg.named);
}

// Follows segs[from..] below node; an empty node when any step is missing.
Node descend(Config& conf, Node node, const std::vector<Segment>& segs, size_t from)
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
Node resolve(Config& conf, const std::vector<Segment>& segs, const char* server)
{
    if (!matches(conf.name(0), conf.attr(0), segs[0])) {
        return Node();
    }
    Node node{0, {}};
    bool per_server = server != nullptr && server[0] != '\0';
    Node chosen;
    for (size_t i = 1; i <= segs.size(); i++) {
        if (per_server) {
            Node srv = conf.find_named(node, "server", server);
            if (srv) {
                Node cand = descend(conf, srv, segs, i);
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
std::vector<Config*> search_order(State& st)
{
    std::vector<Config*> order;
    order.push_back(st.alternate != nullptr ? st.alternate : st.defconf.get());
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

// Opens a regular file for reading. Missing: ZOR_XMLERR_NOTEXIST_PATH; a
// directory, FIFO or empty file in its place: ZOR_XMLERR_INVALID_XML (and
// O_NONBLOCK: opening a FIFO does not wait).
int open_regular(const std::string& file, struct stat& st, int& fd)
{
    fd = open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        return errno == ENOENT || errno == ENOTDIR ? ZOR_XMLERR_NOTEXIST_PATH : ZOR_XMLERR_INVALID_XML;
    }
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size <= 0 ||
        static_cast<unsigned long long>(st.st_size) >= SIZE_MAX / 2) {
        close(fd);
        fd = -1;
        return ZOR_XMLERR_INVALID_XML;
    }
    return ZOR_XMLERR_SUCCESS;
}

// Reads a whole open file with one read (a second only when it grew) into a
// buffer of pugixml's allocator.
int read_all(int fd, size_t expect, char*& buf, size_t& len)
{
    size_t cap = expect + 1;  // one more byte shows a file that grew
    len = 0;
    buf = static_cast<char*>(pugi::get_memory_allocation_function()(cap));
    if (buf == nullptr) {
        return ZOR_XMLERR_OTHER;
    }
    while (true) {
        ssize_t n = read(fd, buf + len, cap - len);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            pugi::get_memory_deallocation_function()(buf);
            return ZOR_XMLERR_INVALID_XML;
        }
        if (n == 0) {
            return ZOR_XMLERR_SUCCESS;
        }
        len += static_cast<size_t>(n);
        if (len == cap) {
            // Written to while we read: take the rest as well.
            size_t bigger = cap * 2;
            char* grown = static_cast<char*>(pugi::get_memory_allocation_function()(bigger));
            if (grown == nullptr) {
                pugi::get_memory_deallocation_function()(buf);
                return ZOR_XMLERR_OTHER;
            }
            memcpy(grown, buf, len);
            pugi::get_memory_deallocation_function()(buf);
            buf = grown;
            cap = bigger;
        }
    }
}

// ---- The index file ----

struct IndexHeader {
    char magic[8];
    uint64_t dev, ino, size;
    int64_t mtime_s, mtime_ns, ctime_s, ctime_ns;
    uint32_t count, strbytes;
};

constexpr char kIndexMagic[8] = {'Z', 'O', 'R', 'X', 'I', 'D', 'X', '1'};

IndexHeader header_of(const struct stat& st)
{
    IndexHeader h{};
    memcpy(h.magic, kIndexMagic, sizeof(h.magic));
    h.dev = st.st_dev;
    h.ino = st.st_ino;
    h.size = static_cast<uint64_t>(st.st_size);
    h.mtime_s = st.st_mtim.tv_sec;
    h.mtime_ns = st.st_mtim.tv_nsec;
    h.ctime_s = st.st_ctim.tv_sec;
    h.ctime_ns = st.st_ctim.tv_nsec;
    return h;
}

// The index directory, checked on the way and made (0700) when make is set;
// an O_PATH descriptor or -1.
int index_dir(bool make)
{
    char path[4096];
    if (zor_home_path(path, sizeof(path), "var/xmlindex") != 0) {
        return -1;
    }
    return zor_safe_dir(path, make ? 0700 : 0);
}

// Checks the records and links each to its parent's list of children.
bool link_records(Config& conf, uint64_t names_size, uint64_t file_size)
{
    conf.first.assign(conf.count, kNone);
    conf.next.assign(conf.count, kNone);
    conf.nodes.assign(conf.count, pugi::xml_node());
    std::vector<uint32_t> last(conf.count, kNone);
    for (uint32_t i = 0; i < conf.count; i++) {
        const IndexRecord& r = conf.records[i];
        if (uint64_t(r.name_off) + r.name_len > names_size ||
            uint64_t(r.attr_off) + r.attr_len > names_size || r.begin > r.end || r.end > file_size) {
            return false;
        }
        if (i == 0) {
            if (r.parent != kNone || r.depth != 1) {
                return false;
            }
            continue;
        }
        if (r.parent >= i || conf.records[r.parent].depth + 1 != r.depth || r.depth > kIndexDepth) {
            return false;
        }
        (last[r.parent] == kNone ? conf.first[r.parent] : conf.next[last[r.parent]]) = i;
        last[r.parent] = i;
    }
    return conf.count > 0;
}

// Reads the index of a file whose status is st. False when there is none, it
// is not ours alone, or it was made from another version of the file.
bool read_index(const char* cache_name, const struct stat& st, Config& conf)
{
    int dfd = index_dir(false);
    if (dfd < 0) {
        return false;
    }
    int fd = zor_safe_open(dfd, cache_name, O_RDONLY);
    close(dfd);
    if (fd < 0) {
        return false;
    }
    struct stat ist;
    bool ok = fstat(fd, &ist) == 0 && static_cast<size_t>(ist.st_size) >= sizeof(IndexHeader) &&
              ist.st_size < (64 << 20);
    if (ok) {
        conf.index_file.len = static_cast<size_t>(ist.st_size);
        conf.index_file.addr = mmap(nullptr, conf.index_file.len, PROT_READ, MAP_PRIVATE, fd, 0);
        ok = conf.index_file.addr != MAP_FAILED;
    }
    close(fd);
    IndexHeader h;
    IndexHeader want = header_of(st);
    const char* bytes = static_cast<const char*>(conf.index_file.addr);
    if (ok) {
        memcpy(&h, bytes, sizeof(h));
        want.count = h.count;
        want.strbytes = h.strbytes;
        ok = memcmp(&h, &want, sizeof(h)) == 0 &&
             conf.index_file.len == sizeof(h) + uint64_t(h.count) * sizeof(IndexRecord) + h.strbytes;
    }
    if (ok) {
        // The records lie 8-byte aligned after the header, as they were written.
        conf.records = reinterpret_cast<const IndexRecord*>(bytes + sizeof(h));
        conf.names = bytes + sizeof(h) + size_t(h.count) * sizeof(IndexRecord);
        conf.count = h.count;
        ok = link_records(conf, h.strbytes, h.size);
    }
    if (!ok) {
        conf = Config();
        return false;
    }
    conf.from_index = true;
    return true;
}

// Start and end of every element down to the index's depth, in document
// order, in a file the parser has accepted. False for a shape it does not
// follow (a DOCTYPE): such a file is not indexed.
struct Span {
    uint64_t begin, end;
    unsigned depth;
};

bool scan_spans(const char* b, size_t len, std::vector<Span>& out)
{
    auto find = [&](size_t from, std::string_view what) -> size_t {
        std::string_view rest(b + from, len - from);
        size_t at = rest.find(what);
        return at == std::string_view::npos ? len : from + at + what.size();
    };
    auto starts = [&](size_t at, std::string_view what) {
        return std::string_view(b + at, len - at).starts_with(what);
    };
    std::vector<size_t> open;  // per open element: its span, or kNone below the index's depth
    size_t i = 0;
    while (true) {
        const void* lt = memchr(b + i, '<', len - i);
        if (lt == nullptr) {
            return false;
        }
        i = static_cast<size_t>(static_cast<const char*>(lt) - b);
        if (starts(i, "<!--")) {
            i = find(i + 4, "-->");
        } else if (starts(i, "<![CDATA[")) {
            i = find(i + 9, "]]>");
        } else if (starts(i, "<?")) {
            i = find(i + 2, "?>");
        } else if (starts(i, "<!")) {
            return false;
        } else if (starts(i, "</")) {
            i = find(i + 2, ">");
            if (open.empty() || i > len) {
                return false;
            }
            if (open.back() != kNone) {
                out[open.back()].end = i;
            }
            open.pop_back();
            if (open.empty()) {
                return true;
            }
        } else {
            size_t j = i + 1;
            char quote = 0;
            for (; j < len; j++) {
                char c = b[j];
                if (quote != 0) {
                    quote = c == quote ? 0 : quote;
                } else if (c == '"' || c == '\'') {
                    quote = c;
                } else if (c == '>') {
                    break;
                }
            }
            if (j == len) {
                return false;
            }
            unsigned depth = static_cast<unsigned>(open.size()) + 1;
            size_t span = kNone;
            if (depth <= kIndexDepth) {
                out.push_back(Span{i, 0, depth});
                span = out.size() - 1;
            }
            i = j + 1;
            if (b[j - 1] == '/') {
                if (span != kNone) {
                    out[span].end = i;
                }
                if (open.empty()) {
                    return true;
                }
            } else {
                open.push_back(span);
            }
        }
        if (i >= len) {
            return false;
        }
    }
}

// A file in UTF-8 (or ASCII): the only one whose elements can be parsed
// alone from their bytes as they were parsed in the whole. Its declaration,
// if any, names no other encoding.
bool plain_utf8(const char* b, size_t len)
{
    std::string_view text(b, len);
    if (text.starts_with("\xef\xbb\xbf")) {
        text.remove_prefix(3);
    }
    if (text.empty() || text[0] != '<' || (text.size() > 1 && text[1] == '\0')) {
        return false;  // UTF-16 or UTF-32, with or without a byte order mark
    }
    if (!text.starts_with("<?xml")) {
        return true;
    }
    std::string_view decl = text.substr(0, text.find("?>"));
    size_t enc = decl.find("encoding");
    if (enc == std::string_view::npos) {
        return true;
    }
    size_t quote = decl.find_first_of("\"'", enc);
    if (quote == std::string_view::npos) {
        return false;
    }
    std::string_view name = decl.substr(quote + 1, 5);
    return name.size() == 5 && (name[0] | 0x20) == 'u' && (name[1] | 0x20) == 't' &&
           (name[2] | 0x20) == 'f' && name[3] == '-' && name[4] == '8' &&
           decl.substr(quote + 6, 1) == decl.substr(quote, 1);
}

void write_index(const char* cache_name, const struct stat& st, const Config& conf,
                 const std::vector<Span>& spans)
{
    if (spans.size() != conf.own_records.size()) {
        return;
    }
    std::vector<IndexRecord> recs = conf.own_records;
    for (size_t i = 0; i < spans.size(); i++) {
        // The scan and the parse must have seen the same elements.
        if (spans[i].depth != recs[i].depth) {
            return;
        }
        recs[i].begin = spans[i].begin;
        recs[i].end = spans[i].end;
    }
    IndexHeader h = header_of(st);
    h.count = static_cast<uint32_t>(recs.size());
    h.strbytes = static_cast<uint32_t>(conf.own_names.size());
    int dfd = index_dir(true);
    if (dfd < 0) {
        return;
    }
    // Written aside and renamed over: a reader sees a whole index or none.
    // One left by a writer of the same number that died is ours to replace.
    std::string tmp = std::string(cache_name) + ".tmp." + std::to_string(getpid());
    unlinkat(dfd, tmp.c_str(), 0);
    int fd = zor_safe_open(dfd, tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL);
    if (fd >= 0) {
        std::string out(reinterpret_cast<const char*>(&h), sizeof(h));
        out.append(reinterpret_cast<const char*>(recs.data()), recs.size() * sizeof(IndexRecord));
        out.append(conf.own_names.data(), conf.own_names.size());
        bool ok = write(fd, out.data(), out.size()) == static_cast<ssize_t>(out.size());
        ok = close(fd) == 0 && ok;
        if (!ok || renameat(dfd, tmp.c_str(), dfd, cache_name) != 0) {
            unlinkat(dfd, tmp.c_str(), 0);
        }
    }
    close(dfd);
}

// The index of a parsed document: its elements down to the index's depth,
// in document order.
void index_document(Config& conf)
{
    std::vector<pugi::xml_node> elements;
    auto add = [&](pugi::xml_node n, uint32_t parent, unsigned depth) {
        auto put = [&](const char* text) {
            uint32_t off = static_cast<uint32_t>(conf.own_names.size());
            conf.own_names.insert(conf.own_names.end(), text, text + strlen(text));
            return off;
        };
        IndexRecord r{};
        pugi::xml_attribute a = n.attribute("name");
        r.name_off = put(n.name());
        r.name_len = static_cast<uint32_t>(conf.own_names.size() - r.name_off);
        r.attr_off = put(a.value());
        r.attr_len = static_cast<uint32_t>(conf.own_names.size() - r.attr_off);
        r.has_attr = bool(a);
        r.depth = static_cast<uint8_t>(depth);
        r.parent = parent;
        conf.own_records.push_back(r);
        elements.push_back(n);
        return static_cast<uint32_t>(conf.own_records.size() - 1);
    };
    // Pre-order, as the elements stand in the file.
    struct Frame {
        pugi::xml_node node;
        uint32_t entry;
        unsigned depth;
    };
    std::vector<Frame> stack;
    stack.push_back({conf.doc->document_element(), kNone, 1});
    while (!stack.empty()) {
        Frame f = stack.back();
        stack.pop_back();
        uint32_t me = add(f.node, f.entry, f.depth);
        if (f.depth < kIndexDepth) {
            std::vector<pugi::xml_node> kids;
            for (pugi::xml_node c = f.node.first_child(); c; c = c.next_sibling()) {
                if (c.type() == pugi::node_element) {
                    kids.push_back(c);
                }
            }
            for (auto it = kids.rbegin(); it != kids.rend(); ++it) {
                stack.push_back({*it, me, f.depth + 1});
            }
        }
    }
    conf.records = conf.own_records.data();
    conf.names = conf.own_names.data();
    conf.count = static_cast<uint32_t>(conf.own_records.size());
    link_records(conf, conf.own_names.size(), UINT64_MAX);
    conf.nodes = std::move(elements);
}

bool settled(const struct stat& st)
{
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    auto ms = [](const struct timespec& t) {
        return static_cast<long long>(t.tv_sec) * 1000 + t.tv_nsec / 1000000;
    };
    long long newest = ms(st.st_ctim) > ms(st.st_mtim) ? ms(st.st_ctim) : ms(st.st_mtim);
    return ms(now) - newest >= settle_ms;
}

// Loads one file. Missing: ZOR_XMLERR_NOTEXIST_PATH; unreadable, empty,
// malformed or without a <root> element: ZOR_XMLERR_INVALID_XML. With a
// cache name, the file's index is read when it matches the file, and written
// when it does not.
int load_file(const std::string& file, const char* cache_name, std::unique_ptr<Config>& out)
{
    struct stat st;
    int fd = -1;
    int ret = open_regular(file, st, fd);
    if (ret != ZOR_XMLERR_SUCCESS) {
        return ret;
    }
    auto conf = std::unique_ptr<Config>(new (std::nothrow) Config);
    if (!conf) {
        close(fd);
        return ZOR_XMLERR_OTHER;
    }
    conf->file = file;
    if (cache_name != nullptr && read_index(cache_name, st, *conf)) {
        conf->fd.fd = fd;
        out = std::move(conf);
        return ZOR_XMLERR_SUCCESS;
    }
    char* buf = nullptr;
    size_t len = 0;
    ret = read_all(fd, static_cast<size_t>(st.st_size), buf, len);
    close(fd);
    if (ret != ZOR_XMLERR_SUCCESS) {
        return ret;
    }
    // The spans are taken before the parse, which works in the buffer itself.
    std::vector<Span> spans;
    bool indexable = cache_name != nullptr && len == static_cast<size_t>(st.st_size) && settled(st) &&
                     plain_utf8(buf, len) && scan_spans(buf, len, spans);
    conf->doc.reset(new (std::nothrow) pugi::xml_document);
    if (!conf->doc) {
        pugi::get_memory_deallocation_function()(buf);
        return ZOR_XMLERR_OTHER;
    }
    // Comments and processing instructions are skipped, as a reader wants.
    pugi::xml_parse_result res = conf->doc->load_buffer_inplace_own(
        buf, len, pugi::parse_default | pugi::parse_embed_pcdata, pugi::encoding_auto);
    if (res.status == pugi::status_out_of_memory) {
        return ZOR_XMLERR_OTHER;
    }
    if (!res) {
        return ZOR_XMLERR_INVALID_XML;
    }
    pugi::xml_node root = conf->doc->document_element();
    if (!root || std::string_view(root.name()) != "root") {
        return ZOR_XMLERR_INVALID_XML;
    }
    try {
        index_document(*conf);
        if (indexable) {
            write_index(cache_name, st, *conf, spans);
        }
    } catch (const std::bad_alloc&) {
        return ZOR_XMLERR_OTHER;
    }
    out = std::move(conf);
    return ZOR_XMLERR_SUCCESS;
}

// Parses a configuration whose index no longer matches it afresh.
int reload(Config& conf)
{
    std::unique_ptr<Config> fresh;
    int ret = load_file(conf.file, nullptr, fresh);
    if (ret == ZOR_XMLERR_SUCCESS) {
        conf = std::move(*fresh);
    }
    return ret;
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

// The answer of a read that met a file no longer matching its index.
constexpr int kStale = -1;

// Runs a read; when it met a stale configuration, parses that one afresh and
// runs the read once more.
template <class F>
int fresh_read(State& st, F read)
{
    int ret = read();
    if (ret != kStale) {
        return ret;
    }
    for (Config* conf : search_order(st)) {
        if (conf != nullptr && conf->stale && (ret = reload(*conf)) != ZOR_XMLERR_SUCCESS) {
            return ret;
        }
    }
    ret = read();
    return ret == kStale ? ZOR_XMLERR_INVALID_XML : ret;
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
    return fresh_read(st, [&]() {
        for (Config* conf : search_order(st)) {
            if (conf == nullptr) {
                continue;
            }
            Node node = resolve(*conf, segs, server);
            pugi::xml_node el = node ? conf->element(node) : pugi::xml_node();
            if (conf->stale) {
                return kStale;
            }
            if (!el) {
                continue;
            }
            std::string text;
            int r = element_text(el, text);
            return r != ZOR_XMLERR_SUCCESS ? r : store_value(text, type, value, size);
        }
        return ZOR_XMLERR_NOTEXIST_PATH;
    });
}

// Runs a call under the library's mutex; before xmllib_init every call but
// init itself is refused.
template <class F>
int with_state(F call)
{
    State& st = state();
    std::lock_guard<std::mutex> lock(st.mu);
    return st.initialized ? call(st) : ZOR_XMLERR_NOT_INIT;
}

// The same for a call naming a policy. A run under an unknown program name
// has an empty type, and with it an empty policy name: there is nothing to
// load or unload, and that is no error.
template <class F>
int with_policy(const char* name, F call)
{
    if (name == nullptr) {
        return ZOR_XMLERR_INVALID_PATH;
    }
    return with_state([&](State& st) { return name[0] == '\0' ? ZOR_XMLERR_SUCCESS : call(st); });
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
    return with_policy(name, [&](State& st) {
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
        int ret = load_file(file, (std::string("policy-") + name).c_str(), pol.conf);
        // No policy file means no defaults; a broken one must not be ignored.
        if (ret != ZOR_XMLERR_SUCCESS && ret != ZOR_XMLERR_NOTEXIST_PATH) {
            return ret;
        }
        st.policies.push_back(std::move(pol));
        return ZOR_XMLERR_SUCCESS;
    });
}

int xmllib_load_config(void)
{
    return with_state([&](State& st) {
        char file[4096];
        if (zor_home_path(file, sizeof(file), "etc/zor.conf") != 0) {
            return ZOR_XMLERR_INVALID_PATH;
        }
        std::unique_ptr<Config> conf;
        int ret = load_file(file, "zor.conf", conf);
        if (ret != ZOR_XMLERR_SUCCESS) {
            return ret;
        }
        st.defconf = std::move(conf);
        return ZOR_XMLERR_SUCCESS;
    });
}

int xmllib_unload_config(void)
{
    return with_state([&](State& st) {
        if (!st.defconf) {
            return ZOR_XMLERR_NOT_LOAD;
        }
        st.defconf.reset();
        return ZOR_XMLERR_SUCCESS;
    });
}

int xmllib_unload_policy(const char* name)
{
    return with_policy(name, [&](State& st) {
        for (auto it = st.policies.rbegin(); it != st.policies.rend(); ++it) {
            if (it->name == name) {
                st.policies.erase(std::next(it).base());
                return ZOR_XMLERR_SUCCESS;
            }
        }
        return ZOR_XMLERR_NOT_LOAD;
    });
}

int xmllib_term(void)
{
    return with_state([&](State& st) {
        // Whatever is still loaded goes with the library: a caller that gives up
        // half-way must still be able to start again.
        st.alternate = nullptr;
        st.alternates.clear();
        st.defconf.reset();
        st.policies.clear();
        st.type.clear();
        st.initialized = false;
        return ZOR_XMLERR_SUCCESS;
    });
}

int xmllib_get_value(const char* path, int type, void* value, int* size)
{
    return with_state([&](State& st) { return get_value_locked(st, nullptr, path, type, value, size); });
}

int xmllib_get_srvsep_value(const char* server, const char* path, int type, void* value, int* size)
{
    return with_state([&](State& st) { return get_value_locked(st, server, path, type, value, size); });
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
    return fresh_read(st, [&]() {
        for (Config* conf : search_order(st)) {
            if (conf == nullptr) {
                continue;
            }
            Node parent = resolve(*conf, parent_segs, nullptr);
            if (conf->stale) {
                return kStale;
            }
            if (!parent) {
                continue;
            }
            std::vector<std::string_view> names;
            bool too_long = false;
            conf->find_child(parent, [&](const Node&, std::string_view n, std::string_view a, bool has) {
                if (has && matches(n, a, last)) {
                    // A name that does not fit its slot would be compared cut short.
                    too_long = too_long || a.size() >= ZOR_XML_ENUM_SLOT;
                    names.push_back(a);
                }
                return false;
            });
            if (conf->stale) {
                return kStale;
            }
            if (too_long) {
                return ZOR_XMLERR_INVALID_CONTENTS;
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
                memcpy(out + i * ZOR_XML_ENUM_SLOT, names[i].data(), names[i].size());
            }
            *size = need;
            return ZOR_XMLERR_SUCCESS;
        }
        return ZOR_XMLERR_NOTEXIST_PATH;
    });
}

void zorxml_set_settle_ms(long long ms)
{
    std::lock_guard<std::mutex> lock(state().mu);
    settle_ms = ms;
}

bool zorxml_config_from_index(void)
{
    State& st = state();
    std::lock_guard<std::mutex> lock(st.mu);
    return st.defconf && st.defconf->from_index;
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
    return with_state([&](State& st) {
        std::unique_ptr<Config> conf;
        int ret = load_file(path, nullptr, conf);
        if (ret != ZOR_XMLERR_SUCCESS) {
            return ret;
        }
        *handle = conf.get();
        st.alternates.push_back(std::move(conf));
        return ZOR_XMLERR_SUCCESS;
    });
}

int xmllib_change_config(void* handle)
{
    return with_state([&](State& st) {
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
    });
}

int xmllib_unload_pathconfig(void* handle)
{
    return with_state([&](State& st) {
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
    });
}
