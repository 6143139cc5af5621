// A throw-away cluster node for the tests of the agent's driver and loaders:
// a temporary ZOR_HOME with its configuration and logs, read back through the
// real libraries' files.
#pragma once

#include "test_support.h"

#include <zoripc.h>

#include <sys/mman.h>
#include <sys/stat.h>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

// One record of a log file.
struct LogRecord {
    std::string level;  // ERROR, WARN, INFO, DETAIL, EVENT
    std::string file;
    std::string func;
    std::string msg;
};

class NodeHome {
public:
    NodeHome()
    {
        const char* old = getenv("ZOR_HOME");
        had_old_ = old != nullptr;
        old_ = had_old_ ? old : "";
        for (const char* sub : {"etc", "etc/policy", "log", "run"}) {
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
        if (had_old_) {
            setenv("ZOR_HOME", old_.c_str(), 1);
        } else {
            unsetenv("ZOR_HOME");
        }
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
        std::ofstream out(dir_ / rel, std::ios::trunc);
        out << text;
    }

    std::string read(const std::string& rel) const
    {
        std::ifstream in(dir_ / rel);
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }

    // Records of $ZOR_HOME/log/<name>.log, in order. A line is
    // "DATE TIME [PID:TID] LEVEL FILE:LINE FUNCTION: MESSAGE".
    std::vector<LogRecord> records(const std::string& name = "disk") const
    {
        std::vector<LogRecord> out;
        std::istringstream in(read("log/" + name + ".log"));
        std::string line;
        while (std::getline(in, line)) {
            std::string field[5];
            size_t pos = 0;
            bool ok = true;
            for (std::string& f : field) {
                size_t sp = line.find(' ', pos);
                if (sp == std::string::npos) {
                    ok = false;
                    break;
                }
                f = line.substr(pos, sp - pos);
                pos = sp + 1;
            }
            size_t colon = line.find(": ", pos);
            if (!ok || colon == std::string::npos) {
                continue;
            }
            LogRecord rec;
            rec.level = field[3];
            rec.file = field[4].substr(0, field[4].rfind(':'));
            rec.func = line.substr(pos, colon - pos);
            rec.msg = line.substr(colon + 2);
            out.push_back(rec);
        }
        return out;
    }

    // Only the message texts.
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
        for (const LogRecord& r : records(name)) {
            if (r.msg == msg) {
                return true;
            }
        }
        return false;
    }

private:
    TempDir dir_;
    bool had_old_ = false;
    std::string old_;
};
