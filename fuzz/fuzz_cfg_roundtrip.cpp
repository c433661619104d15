// Fuzzes parse, edit and render together: a file's text (the front of the
// input) is parsed, a script of edits (taken from the input's end) is
// applied both to the node and to a plain model of it, and the two must
// agree on every result and on the written form, which must parse back to
// itself. One edit in ten also goes through the file editors on disk. One
// input in eight is also written as it is, and the first edit is made on that
// copy: it either succeeds, leaving the edited file's written form, or
// leaves the copy byte for byte as it was.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "fuzz_cfg_support.hpp"

namespace {

const char *const kSections[] = {"S0", "S1", "NULL", "", "a b", "TOVI", "s0"};
const char *const kKeys[] = {"k0", "k1", "K0", "x", "", "bad key", "a=b"};
const char *const kValues[] = {"v", "", "a=b c", "x;y", " lead", "tail\t", "two\nlines", "cr\rx"};

std::string g_dir;

bool writable_name(const std::string &s, bool item)
{
    return s.size() < TOVI_CFG_NAME_MAX && (!item || !s.empty()) && tovi::cfg::valid_name(s.data(), s.size());
}

bool writable_value(const std::string &v)
{
    return v.find_first_of("\r\n") == std::string::npos &&
           (v.empty() || (v.front() != ' ' && v.front() != '\t' && v.back() != ' ' && v.back() != '\t'));
}

// A name from the parsed file (so edits meet existing entries) or a fixed one.
template <size_t N>
std::string pick(unsigned index, const std::vector<std::string> &seen, const char *const (&fixed)[N])
{
    if (index < seen.size())
        return seen[index];
    return fixed[(index - seen.size()) % N];
}

struct Op {
    unsigned kind, sec, key, value;
};

int32_t apply_model(fuzz::Model &m, unsigned kind, const std::string &sec, const std::string &key,
                    const std::string &val)
{
    auto s = std::find_if(m.begin(), m.end(), [&](auto &e) { return e.first == sec; });
    auto find_item = [&]() {
        return std::find_if(s->second.begin(), s->second.end(), [&](auto &e) { return e.first == key; });
    };
    switch (kind) {
    case 0:  // add
        if (!writable_name(sec, false) || !writable_name(key, true) || !writable_value(val))
            return -1;
        if (s != m.end() && find_item() != s->second.end())
            return -1;
        if (s == m.end())
            m.push_back({sec, {{key, val}}});
        else
            s->second.emplace_back(key, val);
        return 0;
    case 1:  // set
        if (!writable_value(val) || s == m.end() || find_item() == s->second.end())
            return -1;
        find_item()->second = val;
        return 0;
    case 2:  // delete an item
        if (s == m.end() || find_item() == s->second.end())
            return -1;
        s->second.erase(find_item());
        if (s->second.empty())
            m.erase(s);
        return 0;
    default:  // delete a section
        if (s == m.end())
            return -1;
        m.erase(s);
        return 0;
    }
}

int32_t apply_node(CfgFileNode *node, unsigned kind, const std::string &sec, const std::string &key,
                   const std::string &val)
{
    switch (kind) {
    case 0:
        return tovi_cfg_add_item_func(node, sec.c_str(), key.c_str(), val.c_str());
    case 1:
        return tovi_cfg_set_item_func(node, sec.c_str(), key.c_str(), val.c_str());
    case 2:
        return tovi_cfg_del_item_func(node, sec.c_str(), key.c_str(), nullptr);
    default:
        return tovi_cfg_del_section_func(node, sec.c_str(), nullptr, nullptr);
    }
}

int32_t apply_file(const std::string &path, unsigned kind, const std::string &sec, const std::string &key,
                   const std::string &val)
{
    switch (kind) {
    case 0:
        return tovi_cfg_file_addItem(path.c_str(), sec.c_str(), key.c_str(), val.c_str());
    case 1:
        return tovi_cfg_file_setItemValue(path.c_str(), sec.c_str(), key.c_str(), val.c_str());
    case 2:
        return tovi_cfg_file_delItem(path.c_str(), sec.c_str(), key.c_str());
    default:
        return tovi_cfg_file_delSection(path.c_str(), sec.c_str());
    }
}

std::string slurp(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

// The input as it is on disk, one edit through the file editors.
void edit_copy(const std::string &text, fuzz::Model model, const Op &op, const std::vector<std::string> &sections,
               const std::vector<std::string> &keys)
{
    std::string copy = g_dir + "/copy.ini";
    std::ofstream(copy, std::ios::binary | std::ios::trunc) << text;
    std::string sec = pick(op.sec, sections, kSections);
    std::string key = pick(op.key, keys, kKeys);
    std::string val = kValues[op.value % (sizeof kValues / sizeof kValues[0])];
    int32_t expected = apply_model(model, op.kind, sec, key, val);
    int32_t got = apply_file(copy, op.kind, sec, key, val);
    std::string after = slurp(copy);
    if (got != expected || after != (got == 0 ? fuzz::render(model) : text))
        abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz::quiet();
    char tmpl[] = "/tmp/tovi_fuzz_cfg_XXXXXX";
    if (mkdtemp(tmpl) == nullptr)
        abort();
    g_dir = tmpl;
    std::atexit([] {
        unlink((g_dir + "/edit.ini").c_str());
        unlink((g_dir + "/copy.ini").c_str());
        rmdir(g_dir.c_str());
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzedDataProvider in(data, size);
    std::vector<Op> ops(in.ConsumeIntegralInRange<unsigned>(0, 12));
    for (Op &op : ops)
        op = Op{in.ConsumeIntegralInRange<unsigned>(0, 3), in.ConsumeIntegral<uint8_t>() % 16u,
                in.ConsumeIntegral<uint8_t>() % 16u, in.ConsumeIntegral<uint8_t>()};
    bool on_disk = in.ConsumeIntegralInRange<unsigned>(0, 9) == 0;
    bool raw_copy = in.ConsumeIntegralInRange<unsigned>(0, 7) == 0;
    std::string text = in.ConsumeRemainingBytesAsString();

    CfgFileNode *node = fuzz::parse(text);
    fuzz::Model model = fuzz::model_of(node);
    std::vector<std::string> sections, keys;
    for (const auto &[sec, items] : model) {
        sections.push_back(sec);
        for (const auto &item : items)
            keys.push_back(item.first);
    }
    std::string path = g_dir + "/edit.ini";
    if (on_disk) {
        std::ofstream(path, std::ios::binary | std::ios::trunc) << fuzz::render(model);
    }
    if (raw_copy && !ops.empty())
        edit_copy(text, model, ops.front(), sections, keys);
    for (const Op &op : ops) {
        std::string sec = pick(op.sec, sections, kSections);
        std::string key = pick(op.key, keys, kKeys);
        std::string val = kValues[op.value % (sizeof kValues / sizeof kValues[0])];
        int32_t expected = apply_model(model, op.kind, sec, key, val);
        if (apply_node(node, op.kind, sec, key, val) != expected)
            abort();
        if (on_disk && apply_file(path, op.kind, sec, key, val) != expected)
            abort();
    }
    fuzz::check_node(node);
    if (fuzz::model_of(node) != model)
        abort();
    fuzz::check_round_trip(node);
    if (on_disk && slurp(path) != fuzz::render(model))
        abort();
    tovi::cfg::free_file_node(node);
    return 0;
}
