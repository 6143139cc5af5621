// A throw-away cluster node: a temporary ZOR_HOME with its configuration and
// logs, read back through the real libraries' files, and the agent set up in
// it.
#pragma once

#include "test_support.h"

#include "bounded.h"
#include "disk.h"
#include "tracersc.h"
#include "zoripc.h"
#include "zorxml.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <algorithm>
#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

struct LogRecord {
    std::string level;  // ERROR, WARN, INFO, DETAIL, EVENT
    std::string file;
    std::string func;
    std::string msg;
};

// Whether recs hold the message (at that level, when one is given).
inline bool has(const std::vector<LogRecord>& recs, const std::string& msg, const std::string& level = "")
{
    return std::any_of(recs.begin(), recs.end(), [&](const LogRecord& r) {
        return r.msg == msg && (level.empty() || r.level == level);
    });
}

class NodeHome {
public:
    NodeHome() : old_(getenv("ZOR_HOME") ? getenv("ZOR_HOME") : "\1")
    {
        for (const char* sub : {"bin", "etc", "etc/policy", "log", "run"}) {
            mkdir((dir_ / sub).c_str(), 0755);
        }
        setenv("ZOR_HOME", dir_.path().c_str(), 1);
    }
    ~NodeHome()
    {
        // The status table lives in /dev/shm under a name derived from the tree.
        char name[256];
        if (shmrm_tablename(name, sizeof(name)) == 0) {
            shm_unlink(name);
        }
        old_ == "\1" ? unsetenv("ZOR_HOME") : setenv("ZOR_HOME", old_.c_str(), 1);
    }
    NodeHome(const NodeHome&) = delete;
    NodeHome& operator=(const NodeHome&) = delete;

    const std::string& path() const
    {
        return dir_.path();
    }
    std::string operator/(const std::string& rel) const
    {
        return dir_ / rel;
    }
    void write(const std::string& rel, const std::string& text) const
    {
        std::ofstream(dir_ / rel) << text;
    }
    std::string read(const std::string& rel) const
    {
        std::ifstream in(dir_ / rel);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    // The file's text, which is then cleared.
    std::string drain(const std::string& rel) const
    {
        const std::string text = read(rel);
        write(rel, "");
        return text;
    }

    // An executable shell script $ZOR_HOME/bin/<name>; returns its path.
    std::string script(const std::string& name, const std::string& body) const
    {
        write("bin/" + name, "#!/bin/sh\n" + body + "\n");
        chmod((dir_ / ("bin/" + name)).c_str(), 0755);
        return dir_ / ("bin/" + name);
    }

    // Records of $ZOR_HOME/log/<name>.log, in order. A line is
    // "DATE TIME [PID:TID] LEVEL FILE:LINE FUNCTION: MESSAGE".
    std::vector<LogRecord> records(const std::string& name = "disk") const
    {
        static const std::regex format(R"(\S+ \S+ \S+ (\S+) (\S+):\S* (.*?): (.*))");
        std::vector<LogRecord> out;
        std::istringstream in(read("log/" + name + ".log"));
        std::smatch m;
        for (std::string line; std::getline(in, line);) {
            if (std::regex_match(line, m, format)) {
                out.push_back({m[1], m[2], m[3], m[4]});
            }
        }
        return out;
    }

    std::vector<std::string> messages(const std::string& name = "disk") const
    {
        std::vector<std::string> out;
        std::ranges::transform(records(name), std::back_inserter(out), &LogRecord::msg);
        return out;
    }
    bool has_message(const std::string& msg, const std::string& name = "disk") const
    {
        return has(records(name), msg);
    }
    // The records written since the last take of the same log.
    std::vector<LogRecord> take(const std::string& name = "disk")
    {
        const std::vector<LogRecord> all = records(name);
        const size_t from = std::min(taken_[name], all.size());
        taken_[name] = all.size();
        return {all.begin() + static_cast<long>(from), all.end()};
    }

private:
    TempDir dir_;
    std::string old_;  // "\1": ZOR_HOME was not set
    std::map<std::string, size_t> taken_;
};

// A cluster configuration document from a list of paths and values. A path is
// relative to <root>; a segment "a@b" is the element <a name="b">, as the
// configuration library addresses it. Elements are created in the order their
// paths first appear.
using ConfKeys = std::vector<std::pair<std::string, std::string>>;

inline std::string conf_xml(const ConfKeys& keys, bool whole = true)
{
    std::string out;
    std::set<std::string> done;
    for (const auto& [path, value] : keys) {
        const std::string seg = path.substr(0, path.find('/'));  // "tag" or "tag@name"
        if (!done.insert(seg).second) {
            continue;
        }
        std::string text;
        ConfKeys below;
        for (const auto& [p, v] : keys) {
            if (p == seg) {
                text = v;
            } else if (p.rfind(seg + "/", 0) == 0) {
                below.emplace_back(p.substr(seg.size() + 1), v);
            }
        }
        const size_t at = seg.find('@');
        const std::string tag = seg.substr(0, at);
        out += "<" + tag + (at == std::string::npos ? "" : " name=\"" + seg.substr(at + 1) + "\"") + ">" +
               text + conf_xml(below, false) + "</" + tag + ">";
    }
    return whole ? "<?xml version=\"1.0\"?>\n<root>" + out + "</root>\n" : out;
}

// keys without the entries whose path is `path` or lies beneath it.
inline ConfKeys without(ConfKeys keys, const std::string& path)
{
    std::erase_if(keys,
                  [&](const auto& kv) { return kv.first == path || kv.first.rfind(path + "/", 0) == 0; });
    return keys;
}

// keys with each value of `changes` replaced or added.
inline ConfKeys with(ConfKeys keys, const ConfKeys& changes)
{
    for (const auto& [path, value] : changes) {
        auto it = std::find_if(keys.begin(), keys.end(), [&](const auto& kv) { return kv.first == path; });
        if (it == keys.end()) {
            keys.emplace_back(path, value);
        } else {
            it->second = value;
        }
    }
    return keys;
}

// "key=value" words as keys below base; a key that begins with "/" is below <root>.
inline ConfKeys keys(const std::string& base, const std::string& words)
{
    ConfKeys out;
    std::istringstream in(words);
    for (std::string w; in >> w;) {
        const std::string key = w.substr(0, w.find('='));
        out.emplace_back(key[0] == '/' ? key.substr(1) : base + "/" + key, w.substr(w.find('=') + 1));
    }
    return out;
}

// A disk resource fs1 in group grp1 and a share share1 in grp2, every key set, to a distinct value
// where the loaders' tests need one to tell a field read from a field left cleared.
const std::string DISK_P = "resource/disk@fs1/parameters";
const std::string NAS_P = "resource/nas@share1/parameters";
const ConfKeys DISK = keys(
    DISK_P,
    "/all/path=/opt/c /cluster/exclusion/mount=2 /group@grp1/resource@disk@fs1= device=/dev/zd0 "
    "rawdevice=/dev/raw/raw1 fs=ext4 disktype=disk mount/path=/bin/mount mount/point=/mnt/fs1 "
    "mount/option=noatime mount/timeout=61 mount/retry=2 mount/action=1 mount/xfsaction=3 "
    "umount/path=/bin/umount umount/option=-l umount/timeout=62 umount/retry=4 umount/action=kill "
    "umount/interval=7 umount/chkprcmnts=1 fsck/path=/sbin/fsck fsck/reiserfs=/sbin/reiserfsck "
    "fsck/rebuildopt=1 fsck/fixopt=1 fsck/option=-y fsck/timeout=600 fsck/timing=2 fsck/interval=10 "
    "fsck/xfs=/sbin/xfs_repair fsck/xfsoption=-n fsck/xfstimeout=700 fsck/xfstiming=1 fsck/xfsinterval=20 "
    "roset/path=bin/zorroset roset/timeout=11 relpath/path=bin/zorrelpath relpath/timeout=31");
// No mount/action nor mount/xfsaction: a share has no recovery check.
const ConfKeys NAS =
    keys(NAS_P,
         "/all/path=/opt/c /group@grp2/resource@nas@share1= svname=10.0.0.1 share=/srv/share1 "
         "fs=nfs ping/path=bin/ping ping/timeout=3 mount/path=/bin/mount mount/point=/mnt/share1 "
         "mount/option=soft mount/timeout=30 mount/retry=1 umount/path=/bin/umount umount/option= "
         "umount/timeout=30 umount/retry=2 umount/action=none relpath/path=bin/zorrelpath "
         "relpath/timeout=5");

// The disk agent in a throw-away node, tracing, with an empty status text.
class AgentTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        BCOPY(type, "disk");
        traceopen("disk", 8, 0, nullptr);
        shmbuf[0] = '\0';
    }
    void TearDown() override
    {
        traceclose();
    }
    NodeHome home_;
};

// The same with the configuration library loaded, for the parts that read the node's files.
class ConfiguredAgentTest : public AgentTest {
protected:
    void SetUp() override
    {
        home_.write("etc/zor.conf",
                    "<root><disk><log><level>8</level><size>4194304</size></log></disk></root>");
        ASSERT_EQ(xmllib_init("disk"), 0);
        ASSERT_EQ(xmllib_load_config(), 0);
        AgentTest::SetUp();
    }
    void TearDown() override
    {
        AgentTest::TearDown();
        xmllib_unload_config();
        xmllib_term();
    }
};
