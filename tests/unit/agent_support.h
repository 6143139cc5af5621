// Helpers shared by the tests of the agent's commands, runners and flows.
#pragma once

#include "conf_builder.h"
#include "node_home.h"

#include "bounded.h"
#include "disk.h"
#include "tracersc.h"
#include "zorxml.h"

#include <cstdio>
#include <sstream>
#include <string>

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

// A line as the agent's runner hands it to the shell (/bin/sh -c, stdin /dev/null; the shell's own
// messages name "/bin/sh"): its output, and its wait status in *status.
inline std::string sh_output(const std::string& line, int* status = nullptr)
{
    setenv("ZOR_SH_LINE", line.c_str(), 1);
    FILE* p = popen("exec /bin/sh -c \"$ZOR_SH_LINE\" < /dev/null", "r");
    if (p == nullptr) {
        return "popen failed";
    }
    std::string out;
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof(buf), p)) > 0;) {
        out.append(buf, n);
    }
    const int st = pclose(p);
    if (status != nullptr) {
        *status = st;
    }
    return out;
}

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
        BCOPY(type, "disk");
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
