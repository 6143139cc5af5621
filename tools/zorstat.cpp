// zorstat: shows the node's status table (the last status text of every
// resource) to operators, as a table or as JSON, with the state each resource
// is in now; removes a record that is no longer wanted.
//
// The state is the agent's own monitor at depth 0, run in this process: the
// mount table and the device node, no command, nothing on the mounted file
// system. zorstat is the agent's code under another front end: the same
// configuration set-up, existence checks and monitor entry points.
#include "disk.h"
#include "flows/zor_monitor.h"
#include "resource_config/zor_loader.h"

#include "zorhome.h"
#include "zoripc.h"
#include "zorxml.h"

#include <getopt.h>
#include <strings.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

namespace {

void usage(FILE* out)
{
    fputs(
        "Usage: zorstat [--json] [-g GROUP] [-r RESOURCE]\n"
        "       zorstat --remove -g GROUP -r RESOURCE\n"
        "       zorstat --table-name\n"
        "Shows the last status text of every resource of this node, sorted by\n"
        "group, type and resource, and the state the resource is in now: in service,\n"
        "out of service, failed (with the reason below the table), not configured\n"
        "(the configuration no longer names it) or unknown.\n"
        "\n"
        "  -g, --group GROUP        only records of this group\n"
        "  -r, --resource RESOURCE  only records of this resource\n"
        "      --json               a JSON array of objects with the keys group,\n"
        "                           type, resource, state, reason, updated, text\n"
        "      --remove             remove the record of GROUP and RESOURCE (root)\n"
        "      --table-name         print the name of the node's shared-memory\n"
        "                           table (under /dev/shm) and exit\n"
        "  -h, --help               this text\n"
        "      --version            the version of zor\n"
        "\n"
        "The state is the monitor's quick check (zordisk --monitor at depth 0): the\n"
        "mount table and the device, no command run. Users other than root cannot\n"
        "open a device (its read-only flag, whether something holds it): where the\n"
        "answer depends on it, or on a file they cannot read, the state is unknown.\n"
        "The node is the one named by ZOR_HOME (default /opt/zor).\n"
        "Exit status: 0 shown or removed (also when nothing is stored yet), 1 the\n"
        "table could not be read or the record not removed, 2 usage error.\n",
        out);
}

// One record of the table and what the monitor says of it now.
struct Row {
    SHMRM_RECORD rec;
    std::string state;
    std::string reason;  // why it failed, or why it cannot be told
};

// The resource's disk type, as the driver reads it; empty when unreadable.
std::string disk_type(const char* resource)
{
    char path[ZOR_PATH_SIZE];
    char value[ZOR_NAME_SIZE] = {};
    int size = sizeof(value);
    snprintf(path, sizeof(path), "/root/resource/%s@%s/parameters/disktype", type, resource);
    return xmllib_get_value(path, ZOR_XML_STRING, value, &size) == 0 ? value : "";
}

// The state of one record, with the configuration of its type loaded.
void tell_state(Row& row, bool root)
{
    const char* rsc = row.rec.resource;
    const char* grp = row.rec.group;
    shmbuf[0] = '\0';
    int ret = ckgrpexist(grp);
    if (ret == 0) {
        ret = ckrscexist(rsc, grp);
    }
    if (ret == 2 || ret == 3) {
        row.state = "not configured";
        return;
    }
    if (ret != 0) {
        row.state = "unknown";
        row.reason = "the configuration could not be read";
        return;
    }
    int mon;
    if (strcmp(type, "nas") == 0) {
        mon = nas_monitor(rsc, grp, 0);
    } else {
        std::string disktype = disk_type(rsc);
        if (strcasecmp(disktype.c_str(), "disk") != 0 && strcasecmp(disktype.c_str(), "lvm") != 0 &&
            strcasecmp(disktype.c_str(), "vxvm") != 0) {
            row.state = "failed";
            row.reason = "unknown disk type '" + disktype + "'";
            return;
        }
        mon = disk_monitor(rsc, grp, disktype.c_str(), 0);
    }
    if (mon == MON_RUNNING || mon == MON_STOPPED) {
        row.state = mon == MON_RUNNING ? "in service" : "out of service";
    } else if (mon == MON_ABSENT) {
        // Nothing of it here: its device does not exist on this server.
        row.state = "out of service";
        row.reason = shmbuf;
    } else if (root || mon == MON_CONFIG) {
        row.state = "failed";
        row.reason = shmbuf;
    } else {
        row.state = "unknown";
        row.reason = std::string("needs root to tell: ") + shmbuf;
    }
}

// Tells the state of every row, loading the configuration once per type.
void tell_states(std::vector<Row>& rows)
{
    const bool root = geteuid() == 0;
    for (Row& row : rows) {
        row.state = "-";  // a record of a program started under another name
    }
    for (const char* t : {"disk", "nas"}) {
        if (std::none_of(rows.begin(), rows.end(),
                         [&](const Row& r) { return strcmp(r.rec.type, t) == 0; })) {
            continue;
        }
        snprintf(type, sizeof(type), "%s", t);
        const bool loaded = xmlinit() == 0;
        for (Row& row : rows) {
            if (strcmp(row.rec.type, t) != 0) {
                continue;
            }
            if (loaded) {
                tell_state(row, root);
            } else {
                row.state = "unknown";
                row.reason = "the configuration could not be read";
            }
        }
        xmlend();
    }
}

// Local time of a record, "2024-05-01 12:00:00", or ISO 8601 with the offset
// for JSON ("2024-05-01T12:00:00+02:00").
std::string format_time(long long sec, bool iso)
{
    time_t t = static_cast<time_t>(sec);
    struct tm tm;
    if (localtime_r(&t, &tm) == nullptr) {
        return "?";
    }
    char buf[64];
    if (!iso) {
        strftime(buf, sizeof(buf), "%Y-%m-%d %H:%M:%S", &tm);
        return buf;
    }
    strftime(buf, sizeof(buf), "%Y-%m-%dT%H:%M:%S", &tm);
    long off = tm.tm_gmtoff;
    char sign = off < 0 ? '-' : '+';
    off = off < 0 ? -off : off;
    char zone[32];
    snprintf(zone, sizeof(zone), "%c%02ld:%02ld", sign, off / 3600, (off / 60) % 60);
    return std::string(buf) + zone;
}

// Length of the valid UTF-8 sequence at s (n bytes left), or 0.
size_t utf8_len(const unsigned char* s, size_t n)
{
    size_t len;
    unsigned min;
    unsigned cp;
    if (s[0] < 0x80) {
        return 1;
    } else if ((s[0] & 0xE0) == 0xC0) {
        len = 2, min = 0x80, cp = s[0] & 0x1Fu;
    } else if ((s[0] & 0xF0) == 0xE0) {
        len = 3, min = 0x800, cp = s[0] & 0x0Fu;
    } else if ((s[0] & 0xF8) == 0xF0) {
        len = 4, min = 0x10000, cp = s[0] & 0x07u;
    } else {
        return 0;
    }
    if (len > n) {
        return 0;
    }
    for (size_t i = 1; i < len; i++) {
        if ((s[i] & 0xC0) != 0x80) {
            return 0;
        }
        cp = (cp << 6) | (s[i] & 0x3Fu);
    }
    if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
        return 0;
    }
    return len;
}

// A JSON string literal. Texts come from agents and may hold anything; bytes
// that are not UTF-8 become U+FFFD so that the output is always valid JSON.
std::string json_string(const char* s)
{
    std::string out = "\"";
    const unsigned char* p = reinterpret_cast<const unsigned char*>(s);
    size_t n = strlen(s);
    for (size_t i = 0; i < n;) {
        unsigned char c = p[i];
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c == '\r') {
            out += "\\r";
        } else if (c < 0x20 || c == 0x7F) {
            char esc[8];
            snprintf(esc, sizeof(esc), "\\u%04x", c);
            out += esc;
        } else if (c >= 0x80) {
            size_t len = utf8_len(p + i, n - i);
            if (len == 0) {
                out += "\\ufffd";
                i++;
                continue;
            }
            out.append(reinterpret_cast<const char*>(p + i), len);
            i += len;
            continue;
        } else {
            out += static_cast<char>(c);
        }
        i++;
    }
    return out + "\"";
}

// For the table: one line per record, so control characters become blanks.
std::string printable(const char* s)
{
    std::string out(s);
    for (char& c : out) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
            c = ' ';
        }
    }
    return out;
}

int read_table(std::vector<SHMRM_RECORD>* recs)
{
    // Nothing stored yet: an empty table (a read never makes one, so that
    // looking at a node never changes it).
    int rc = shmrm_attach_read();
    if (rc != SHMRM_SUCCESS) {
        return rc == SHMRM_ERR_NOTFOUND ? SHMRM_SUCCESS : rc;
    }
    int max = 256;
    for (;;) {
        recs->resize(static_cast<size_t>(max));
        int count = 0;
        rc = shmrm_list(recs->data(), max, &count);
        if (rc == SHMRM_ERR_NOTENOUGH) {
            max *= 2;
            continue;
        }
        recs->resize(rc == SHMRM_SUCCESS ? static_cast<size_t>(count) : 0);
        break;
    }
    shmrm_detach();
    return rc;
}

void print_table(const std::vector<Row>& rows)
{
    size_t wg = strlen("GROUP");
    size_t wt = strlen("TYPE");
    size_t wr = strlen("RESOURCE");
    size_t ws = strlen("out of service");
    for (const Row& row : rows) {
        wg = std::max(wg, strlen(row.rec.group));
        wt = std::max(wt, strlen(row.rec.type));
        wr = std::max(wr, strlen(row.rec.resource));
        ws = std::max(ws, row.state.size());
    }
    int ig = static_cast<int>(wg);
    int it = static_cast<int>(wt);
    int ir = static_cast<int>(wr);
    int is = static_cast<int>(ws);
    printf("%-*s  %-*s  %-*s  %-*s  %-19s  %s\n", ig, "GROUP", it, "TYPE", ir, "RESOURCE", is, "STATE",
           "UPDATED", "STATUS");
    for (const Row& row : rows) {
        const SHMRM_RECORD& r = row.rec;
        printf("%-*s  %-*s  %-*s  %-*s  %-19s  %s\n", ig, printable(r.group).c_str(), it,
               printable(r.type).c_str(), ir, printable(r.resource).c_str(), is, row.state.c_str(),
               format_time(r.updated_sec, false).c_str(), printable(r.text).c_str());
    }
    bool first = true;
    for (const Row& row : rows) {
        if (!row.reason.empty()) {
            printf("%s%s/%s (%s) %s: %s\n", first ? "\n" : "", printable(row.rec.group).c_str(),
                   printable(row.rec.resource).c_str(), printable(row.rec.type).c_str(), row.state.c_str(),
                   printable(row.reason.c_str()).c_str());
            first = false;
        }
    }
}

void print_json(const std::vector<Row>& rows)
{
    fputs("[", stdout);
    for (size_t i = 0; i < rows.size(); i++) {
        const SHMRM_RECORD& r = rows[i].rec;
        // The text stays last: scripts take it from the end of the line.
        printf(
            "%s\n  {\"group\": %s, \"type\": %s, \"resource\": %s, \"state\": %s, \"reason\": %s, "
            "\"updated\": %s, \"text\": %s}",
            i == 0 ? "" : ",", json_string(r.group).c_str(), json_string(r.type).c_str(),
            json_string(r.resource).c_str(), json_string(rows[i].state.c_str()).c_str(),
            json_string(rows[i].reason.c_str()).c_str(),
            json_string(format_time(r.updated_sec, true).c_str()).c_str(), json_string(r.text).c_str());
    }
    fputs(rows.empty() ? "]\n" : "\n]\n", stdout);
}

// Removes every record of the group and resource (of any type).
int remove_records(const char* group, const char* resource)
{
    if (geteuid() != 0) {
        fprintf(stderr, "zorstat: only root can remove a record\n");
        return 1;
    }
    std::vector<SHMRM_RECORD> recs;
    int rc = read_table(&recs);
    int removed = 0;
    if (rc == SHMRM_SUCCESS && !recs.empty()) {
        rc = shmrm_attach();
        for (const SHMRM_RECORD& r : recs) {
            if (rc == SHMRM_SUCCESS && strcmp(r.group, group) == 0 && strcmp(r.resource, resource) == 0) {
                rc = shmrm_remove(r.group, r.type, r.resource);
                removed += rc == SHMRM_SUCCESS ? 1 : 0;
            }
        }
        shmrm_detach();
    }
    if (rc != SHMRM_SUCCESS) {
        fprintf(stderr, "zorstat: cannot remove the record of %s/%s from the status table of %s (error %d)\n",
                group, resource, zor_home(), rc);
        return 1;
    }
    if (removed == 0) {
        fprintf(stderr, "zorstat: no record of group %s and resource %s\n", group, resource);
        return 1;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    static const struct option opts[] = {
        {"group", required_argument, nullptr, 'g'}, {"resource", required_argument, nullptr, 'r'},
        {"json", no_argument, nullptr, 'j'},        {"table-name", no_argument, nullptr, 'n'},
        {"remove", no_argument, nullptr, 'x'},      {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'V'},     {nullptr, 0, nullptr, 0},
    };
    const char* group = nullptr;
    const char* resource = nullptr;
    bool json = false;
    bool name_only = false;
    bool remove = false;
    int c;
    opterr = 0;  // the messages below name the program as the user knows it
    while ((c = getopt_long(argc, argv, ":g:r:h", opts, nullptr)) != -1) {
        switch (c) {
            case 'g':
                group = optarg;
                break;
            case 'r':
                resource = optarg;
                break;
            case 'j':
                json = true;
                break;
            case 'n':
                name_only = true;
                break;
            case 'x':
                remove = true;
                break;
            case 'h':
                usage(stdout);
                return 0;
            case 'V':
                printf("zorstat (zor) %s\n", ZOR_VERSION);
                return 0;
            case ':':
                fprintf(stderr, "zorstat: option '%s' requires an argument\nTry 'zorstat --help'.\n",
                        argv[optind - 1]);
                return 2;
            default:
                fprintf(stderr, "zorstat: unrecognized option '%s'\nTry 'zorstat --help'.\n",
                        argv[optind - 1]);
                return 2;
        }
    }
    if (optind < argc) {
        fprintf(stderr, "zorstat: unexpected argument '%s'\nTry 'zorstat --help'.\n", argv[optind]);
        return 2;
    }
    if (remove && (group == nullptr || resource == nullptr)) {
        fputs("zorstat: --remove needs -g GROUP and -r RESOURCE\nTry 'zorstat --help'.\n", stderr);
        return 2;
    }

    if (name_only) {
        // For harnesses that remove a temporary node: rm /dev/shm<name>.
        char name[64];
        if (shmrm_tablename(name, sizeof(name)) != SHMRM_SUCCESS) {
            fprintf(stderr, "zorstat: ZOR_HOME is too long: %s\n", zor_home());
            return 1;
        }
        printf("%s\n", name);
        return 0;
    }

    if (remove) {
        return remove_records(group, resource);
    }

    std::vector<SHMRM_RECORD> recs;
    int rc = read_table(&recs);
    if (rc != SHMRM_SUCCESS) {
        char name[64];
        if (shmrm_tablename(name, sizeof(name)) != SHMRM_SUCCESS) {
            name[0] = '\0';
        }
        fprintf(stderr, "zorstat: cannot read the status table %s of %s (error %d)\n", name, zor_home(), rc);
        return 1;
    }
    recs.erase(std::remove_if(recs.begin(), recs.end(),
                              [&](const SHMRM_RECORD& r) {
                                  return (group != nullptr && strcmp(r.group, group) != 0) ||
                                         (resource != nullptr && strcmp(r.resource, resource) != 0);
                              }),
               recs.end());
    std::sort(recs.begin(), recs.end(), [](const SHMRM_RECORD& a, const SHMRM_RECORD& b) {
        int d = strcmp(a.group, b.group);
        if (d == 0) {
            d = strcmp(a.type, b.type);
        }
        if (d == 0) {
            d = strcmp(a.resource, b.resource);
        }
        return d < 0;
    });
    std::vector<Row> rows;
    for (const SHMRM_RECORD& r : recs) {
        rows.push_back(Row{r, "", ""});
    }
    tell_states(rows);
    if (json) {
        print_json(rows);
    } else {
        print_table(rows);
    }
    return 0;
}
