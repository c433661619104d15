// XML: finding, attributes, text and walking; malformed documents refused
// with the parser's message; the bay description, good and broken.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "child.hpp"
#include "log_capture.hpp"
#include "tovi_bay.h"
#include "tovi_xml.h"

namespace {

int g_files = 0;
struct TempFile {  // removed at the end of its scope
    std::string path = "/tmp/tovi_xml_" + std::to_string(getpid()) + "_" + std::to_string(++g_files);
    explicit TempFile(const std::string &text) { EXPECT_TRUE(tovi::test::write_file(path, text)); }
    ~TempFile() { unlink(path.c_str()); }
};

std::vector<std::string> names(tovi_xml_node_s *parent)
{
    std::vector<std::string> v;
    for (tovi_xml_node_s *e = tovi_xml_element_first(parent); e != nullptr; e = tovi_xml_element_next(e))
        v.push_back(tovi_xml_element_getname(e));
    return v;
}

}  // namespace

TEST(Xml, FindWalkAndRead)
{
    TempFile f("<?xml version=\"1.0\"?>\n<shelf id=\"s1\">\n  <disk slot=\"0\" kind=\"ssd\">  fast </disk>\n"
               "  text\n  <group><disk slot=\"7\"/></group>\n  <disk slot=\"1\" kind=\"hdd\"/>\n</shelf>\n");
    tovi_xml_node_s *doc = tovi_xml_loadfile(f.path.c_str());
    ASSERT_NE(doc, nullptr);
    EXPECT_EQ(names(doc), (std::vector<std::string>{"?xml version=\"1.0\"?", "shelf"}));
    tovi_xml_node_s *shelf = tovi_xml_findelement(doc, doc, "shelf", nullptr, nullptr, TOVI_XML_DESCEND);
    ASSERT_NE(shelf, nullptr);
    EXPECT_EQ(names(shelf), (std::vector<std::string>{"disk", "group", "disk"}));

    std::vector<std::string> slots;  // document order, the nested disk between the direct ones
    for (auto *d = tovi_xml_findelement(shelf, shelf, "disk", nullptr, nullptr, TOVI_XML_DESCEND); d != nullptr;
         d = tovi_xml_findelement(d, shelf, "disk", nullptr, nullptr, TOVI_XML_DESCEND))
        slots.push_back(tovi_xml_element_getattr(d, "slot"));
    EXPECT_EQ(slots, (std::vector<std::string>{"0", "7", "1"}));

    tovi_xml_node_s *hdd = tovi_xml_findelement(shelf, shelf, "disk", "kind", "hdd", TOVI_XML_DESCEND);
    EXPECT_STREQ(tovi_xml_element_getattr(hdd, "slot"), "1");
    tovi_xml_node_s *first = tovi_xml_element_first(shelf);
    EXPECT_STREQ(tovi_xml_element_gettext(first), "  fast ");
    EXPECT_STREQ(tovi_xml_element_gettext(hdd), "");
    const char *name = nullptr;
    EXPECT_STREQ(tovi_xml_element_attrat(first, 1, &name), "ssd");
    EXPECT_STREQ(name, "kind");
    EXPECT_EQ(tovi_xml_element_attrat(first, 2, &name), nullptr);
    tovi_xml_free(doc);
}

TEST(Xml, MalformedDocuments)
{
    // The parser's own messages are its to word: only their start is ours.
    const char *const none = "xml: no element in the document.";
    for (const auto &[text, start] : std::vector<std::pair<const char *, const char *>>{
             {"<a><b></a>", "xml: Mismatched close tag"}, {"<a>", "xml: "}, {"<a>&bogus;</a>", "xml: "}, {"", none}, {" \n", none},
             {"<a/><b x=\"1\"", "xml: the document is cut short or unreadable."}}) {
        tovi::test::LogCapture log;
        TempFile f(text);
        EXPECT_EQ(tovi_xml_loadfile(f.path.c_str()), nullptr) << text;
        const std::string message = log.texts(3).at(0);
        EXPECT_TRUE(message.rfind(start, 0) == 0 && message.find("..") == std::string::npos) << message;
    }
    tovi::test::LogCapture log;
    TempFile fifo("");  // a FIFO without a writer reads as empty instead of hanging the open
    ASSERT_TRUE(unlink(fifo.path.c_str()) == 0 && mkfifo(fifo.path.c_str(), 0600) == 0);
    for (const char *path : {"/nonexistent/x.xml", "/tmp", fifo.path.c_str()})
        EXPECT_EQ(tovi_xml_loadfile(path), nullptr) << path;
    EXPECT_EQ(log.texts(3), (std::vector<std::string>{"xml: cannot open /nonexistent/x.xml: No such file or directory.",
                                                       "xml: cannot open /tmp: Is a directory.", none}));
}

TEST(Bay, GoodAndBrokenFiles)
{
    const std::string head = "<?xml version=\"1.0\"?>\n<!-- enclosure A -->\n<bays version=\"1\">\n";
    TempFile good(head + "  <bay slot=\"3\" type=\"sas\" location=\"front, row 1\"/>\n  <!-- spare -->\n"
                         "  <bay slot=\"0\" type=\"nvme\" enabled=\"no\"></bay>\n  <bay type=\"sata\" slot=\"1023\"/>\n</bays>\n");
    tovi_bay_s bays[3] = {};
    uint32_t n = 0;
    ASSERT_EQ(tovi_bay_read(good.path.c_str(), bays, 3, &n), 0);
    ASSERT_EQ(n, 3u);
    std::string seen;
    for (const auto &b : bays)
        seen += std::to_string(b.slot) + " " + tovi_bay_type_name(b.type) + " " + std::to_string(b.enabled) + " '" + b.location + "';";
    EXPECT_EQ(seen, "3 sas 1 'front, row 1';0 nvme 0 '';1023 sata 1 '';");
    tovi::test::LogCapture log;
    EXPECT_EQ(tovi_bay_read(good.path.c_str(), bays, 2, &n), -E2BIG);
    EXPECT_EQ(n, 3u);
    EXPECT_EQ(tovi_bay_read("/nonexistent/bays.xml", bays, 3, &n), -ENOENT);
    EXPECT_EQ(tovi_bay_read("/tmp", bays, 3, &n), -EIO);
    EXPECT_EQ(log.texts(3), (std::vector<std::string>{"bay: " + good.path + ": 3 bays, room for 2.",
                                                       "bay: /nonexistent/bays.xml: cannot open (No such file or directory).",
                                                       "bay: /tmp: not a regular file of at most 1 MiB."}));

    const std::string loc64(64, 'x');
    const struct { std::string body; std::string reason; } broken[] = {
        {"<bays version=\"2\"></bays>", "the root element is not <bays version=\"1\">"},
        {"<bays version=\"1\"/><bays version=\"1\"/>", "more than one root element"},
        {"<bays version=\"1\"><disk/></bays>", "unexpected element <disk>"},
        {"<bays version=\"1\"><bay type=\"sas\"/></bays>", "bay 1: no slot"},
        {"<bays version=\"1\"><bay slot=\"1024\" type=\"sas\"/></bays>", "bay 1: slot '1024' is not a number from 0 to 1023"},
        {"<bays version=\"1\"><bay slot=\"1\" type=\"SAS\"/></bays>", "bay 1: type 'SAS' is not sas, sata or nvme"},
        {"<bays version=\"1\"><bay slot=\"1\" type=\"sas\" enabled=\"1\"/></bays>", "bay 1: enabled '1' is not yes or no"},
        {"<bays version=\"1\"><bay slot=\"1\" type=\"sas\" enable=\"no\"/></bays>", "bay 1: unknown attribute 'enable'"},
        {"<bays version=\"1\"><bay slot=\"1\" type=\"sas\" location=\"" + loc64 + "\"/></bays>",
         "bay 1: location longer than 63 bytes"},
        {"<bays version=\"1\"><bay slot=\"1\" type=\"sas\"><x/></bay></bays>", "bay 1: has child elements"},
        {"<bays version=\"1\"><bay slot=\"5\" type=\"sas\"/><bay slot=\"05\" type=\"sata\"/></bays>",
         "bay 2: slot 5 appears twice"},
        {"<bays version=\"1\"><bay slot=\"1\" type=\"sas\"></bays>", "not well-formed XML"},
    };
    for (const auto &b : broken) {
        log.clear();
        TempFile f(b.body);
        EXPECT_EQ(tovi_bay_read(f.path.c_str(), bays, 3, &n), -EINVAL) << b.body;
        EXPECT_EQ(bays[0].slot, 3u) << b.body;  // the records are left as they were
        auto errors = log.texts(3);
        ASSERT_FALSE(errors.empty()) << b.body;
        EXPECT_EQ(errors.back(), "bay: " + f.path + ": " + b.reason + ".") << b.body;
    }
}
