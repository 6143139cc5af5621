// A throw-away cluster node for the tests of the agent's driver and loaders:
// a temporary ZOR_HOME with its configuration and logs, read back through the
// real libraries' files.
#pragma once

#include "test_support.h"

#include <zoripc.h>

#include <sys/mman.h>
#include <sys/stat.h>
#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

struct LogRecord {
    std::string level;  // ERROR, WARN, INFO, DETAIL, EVENT
    std::string file;
    std::string func;
    std::string msg;
};

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
        std::stringstream ss;
        ss << std::ifstream(dir_ / rel).rdbuf();
        return ss.str();
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
        std::vector<LogRecord> out;
        std::istringstream in(read("log/" + name + ".log"));
        std::string line;
        while (std::getline(in, line)) {
            std::istringstream ls(line);
            std::string skip, fileline, rest;
            LogRecord r;
            ls >> skip >> skip >> skip >> r.level >> fileline;
            std::getline(ls, rest);
            size_t colon = rest.find(": ");
            if (colon == std::string::npos || rest.empty()) {
                continue;
            }
            r.file = fileline.substr(0, fileline.rfind(':'));
            r.func = rest.substr(1, colon - 1);
            r.msg = rest.substr(colon + 2);
            out.push_back(r);
        }
        return out;
    }

    std::vector<std::string> messages(const std::string& name = "disk") const
    {
        std::vector<std::string> out;
        for (const LogRecord& r : records(name)) {
            out.push_back(r.msg);
        }
        return out;
    }
    bool has_message(const std::string& msg, const std::string& name = "disk") const
    {
        const std::vector<std::string> all = messages(name);
        return std::find(all.begin(), all.end(), msg) != all.end();
    }

private:
    TempDir dir_;
    std::string old_;  // "\1": ZOR_HOME was not set
};
