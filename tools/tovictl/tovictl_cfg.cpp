// tovictl cfg: read and edit configuration files from the command line.
//
//   tovictl cfg get FILE SECTION ITEM           print the item's value
//   tovictl cfg set FILE SECTION ITEM VALUE     change an existing item
//   tovictl cfg add FILE SECTION ITEM VALUE     add an item (and its section)
//   tovictl cfg del FILE SECTION ITEM           remove an item
//   tovictl cfg delsection FILE SECTION         remove a section
//   tovictl cfg dump FILE                       the file as the library parses it
//
// Exit codes: 0 done, 1 the edit failed, 2 usage, 3 the file is missing or
// unreadable, 4 no such section, 5 no such item, 6 the item exists already.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "tovi_cfg.h"
#include "tovi_init.h"

int tovictl_cfg(int argc, char **argv);

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kExitNoFile = 3;
constexpr int kExitNoSection = 4;
constexpr int kExitNoItem = 5;
constexpr int kExitExists = 6;

// Each verb with the arguments it takes after it, FILE included.
struct Shape {
    const char *verb;
    int args;
    const char *usage;
};
const Shape kShapes[] = {{"get", 3, "FILE SECTION ITEM"}, {"set", 4, "FILE SECTION ITEM VALUE"},
                         {"add", 4, "FILE SECTION ITEM VALUE"}, {"del", 3, "FILE SECTION ITEM"},
                         {"delsection", 2, "FILE SECTION"}, {"dump", 1, "FILE"}};

// The parsed file: sections in order, each with its items in order.
struct Parsed {
    std::vector<std::pair<std::string, std::vector<std::pair<std::string, std::string>>>> sections;

    const std::vector<std::pair<std::string, std::string>> *section(const std::string &name) const
    {
        for (const auto &s : sections)
            if (s.first == name)
                return &s.second;
        return nullptr;
    }

    const std::string *item(const std::string &sec, const std::string &name) const
    {
        if (const auto *items = section(sec))
            for (const auto &i : *items)
                if (i.first == name)
                    return &i.second;
        return nullptr;
    }
};

int32_t collect(const char *section, const char *item, const char *value, void *arg)
{
    auto *p = static_cast<Parsed *>(arg);
    if (item == nullptr)
        p->sections.push_back({section, {}});
    else
        p->sections.back().second.emplace_back(item, value);
    return 0;
}

// Parses FILE through the library; false (reported) when it cannot be read.
bool load(const char *path, Parsed &out)
{
    struct stat st {};
    if (stat(path, &st) == 0 && S_ISDIR(st.st_mode)) {
        std::fprintf(stderr, "tovictl: cfg: %s: is a directory\n", path);
        return false;
    }
    if (access(path, R_OK) != 0) {
        int err = errno;
        if (err == ENOENT)
            std::fprintf(stderr, "tovictl: cfg: %s: no such file\n", path);
        else
            std::fprintf(stderr, "tovictl: cfg: %s: cannot read: %s\n", path, std::strerror(err));
        return false;
    }
    if (tovi_cfg_init_ex(path) != 0) {
        std::fprintf(stderr, "tovictl: cfg: %s: cannot parse (see the log above)\n", path);
        return false;
    }
    int32_t walked = tovi_cfg_walk(path, collect, &out);
    tovi_cfg_destroy_ex(path);
    if (walked != 0) {
        std::fprintf(stderr, "tovictl: cfg: %s: cannot parse\n", path);
        return false;
    }
    return true;
}

int no_section(const char *path, const char *section)
{
    std::fprintf(stderr, "tovictl: cfg: %s: no section [%s]\n", path, section);
    return kExitNoSection;
}

int no_item(const char *path, const char *section, const char *item)
{
    std::fprintf(stderr, "tovictl: cfg: %s: no item %s in section [%s]\n", path, item, section);
    return kExitNoItem;
}

int edited(int32_t ret, const char *path)
{
    if (ret == 0)
        return kExitOk;
    std::fprintf(stderr, "tovictl: cfg: %s: the edit failed, the file is unchanged (see the log above)\n", path);
    return kExitFailed;
}


}  // namespace

int tovictl_cfg(int argc, char **argv)
{
    if (argc < 1) {
        std::fprintf(stderr, "tovictl: cfg: needs a verb: get, set, add, del, delsection or dump\n");
        return kExitUsage;
    }
    const std::string verb = argv[0];
    const Shape *shape = nullptr;
    for (const Shape &s : kShapes)
        if (verb == s.verb)
            shape = &s;
    if (shape == nullptr) {
        std::fprintf(stderr, "tovictl: cfg: unknown verb '%s' (get, set, add, del, delsection or dump)\n",
                     verb.c_str());
        return kExitUsage;
    }
    if (argc - 1 != shape->args) {
        std::fprintf(stderr, "tovictl: cfg: usage: tovictl cfg %s %s\n", shape->verb, shape->usage);
        return kExitUsage;
    }
    const char *path = argv[1];

    Parsed parsed;
    if (!load(path, parsed))
        return kExitNoFile;

    if (verb == "dump") {
        for (const auto &[sec, items] : parsed.sections) {
            std::printf("[%s]\n", sec.c_str());
            for (const auto &[name, value] : items)
                std::printf("%s=%s\n", name.c_str(), value.c_str());
        }
        return kExitOk;
    }
    const char *section = argv[2];
    if (verb == "delsection") {
        if (parsed.section(section) == nullptr)
            return no_section(path, section);
        return edited(tovi_cfg_file_delSection(path, section), path);
    }
    const char *item = argv[3];
    const std::string *value = parsed.item(section, item);
    if (verb == "add") {
        if (value != nullptr) {
            std::fprintf(stderr, "tovictl: cfg: %s: section [%s] already has %s (use set)\n", path, section, item);
            return kExitExists;
        }
        return edited(tovi_cfg_file_addItem(path, section, item, argv[4]), path);
    }
    if (parsed.section(section) == nullptr)
        return no_section(path, section);
    if (value == nullptr)
        return no_item(path, section, item);
    if (verb == "get") {
        std::printf("%s\n", value->c_str());
        return kExitOk;
    }
    if (verb == "set")
        return edited(tovi_cfg_file_setItemValue(path, section, item, argv[4]), path);
    return edited(tovi_cfg_file_delItem(path, section, item), path);
}
