// Mini-XML behind the library's own opaque node type. Text is loaded as
// opaque strings (one per run of text, white space kept) so that element
// text reads back exactly as written.
#include "tovi_fileops.hpp"
#include "tovi_xml.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <mxml.h>

#define TOVI_LOG_SOURCE "tovi_xml"
#include "tovi_log.hpp"

namespace {

mxml_node_t *mx(tovi_xml_node_s *node)
{
    return reinterpret_cast<mxml_node_t *>(node);
}

tovi_xml_node_s *tv(mxml_node_t *node)
{
    return reinterpret_cast<tovi_xml_node_s *>(node);
}

constexpr const char *kDocument = "#document";

thread_local bool t_parse_failed = false;

// The parser ends most of its messages with a full stop of its own.
void parse_error(const char *message)
{
    t_parse_failed = true;
    const size_t len = std::strlen(message);
    const int shown = static_cast<int>(len > 0 && message[len - 1] == '.' ? len - 1 : len);
    TOVI_LOG(tovi::log::kError, "xml: %.*s.", shown, message);
}

bool is_element(mxml_node_t *node)
{
    return node != nullptr && mxmlGetType(node) == MXML_ELEMENT;
}

mxml_node_t *element_from(mxml_node_t *node)
{
    while (node != nullptr && mxmlGetType(node) != MXML_ELEMENT)
        node = mxmlGetNextSibling(node);
    return node;
}

}  // namespace

extern "C" {

TOVI_API tovi_xml_node_s *tovi_xml_loadfd(int fd)
{
    if (fd < 0)
        return nullptr;
    // Loaded under a node of our own, so that a declaration, comments and
    // the root element all come out as its children.
    mxml_node_t *doc = mxmlNewElement(MXML_NO_PARENT, kDocument);
    if (doc == nullptr)
        return nullptr;
    // The parser keeps its error hook per thread: set it on every load.
    mxmlSetErrorCallback(parse_error);
    t_parse_failed = false;
    const bool loaded = mxmlLoadFd(doc, fd, MXML_OPAQUE_CALLBACK) != nullptr;
    const bool element = element_from(mxmlGetFirstChild(doc)) != nullptr;
    if (!loaded || !element) {
        // The parser gives up without a word on empty input, on a read error
        // and on input that ends inside a tag.
        if (!t_parse_failed && !element)
            TOVI_LOG(tovi::log::kError, "xml: no element in the document.");
        else if (!t_parse_failed)
            TOVI_LOG(tovi::log::kError, "xml: the document is cut short or unreadable.");
        mxmlDelete(doc);
        return nullptr;
    }
    return tv(doc);
}

TOVI_API tovi_xml_node_s *tovi_xml_loadfile(const char *path)
{
    if (path == nullptr)
        return nullptr;
    // Opened without waiting, so that a FIFO without a writer cannot hang
    // the caller (it reads as empty), then read as usual.
    const int fd = tovi::fileops::open_nowait(path, O_RDONLY);
    struct stat st;
    int err = 0;
    if (fd < 0 || fstat(fd, &st) != 0)
        err = errno;
    else if (S_ISDIR(st.st_mode))
        err = EISDIR;
    if (err != 0) {
        if (fd >= 0)
            close(fd);
        TOVI_LOG(tovi::log::kError, "xml: cannot open %s: %s.", path, std::strerror(err));
        return nullptr;
    }
    tovi_xml_node_s *tree = tovi_xml_loadfd(fd);
    close(fd);
    return tree;
}

TOVI_API void tovi_xml_free(tovi_xml_node_s *tree)
{
    if (tree != nullptr)
        mxmlDelete(mx(tree));
}

TOVI_API tovi_xml_node_s *tovi_xml_findelement(tovi_xml_node_s *node, tovi_xml_node_s *top, const char *name,
                                               const char *attr, const char *value, int descend)
{
    if (node == nullptr)
        return nullptr;
    return tv(mxmlFindElement(mx(node), mx(top), name, attr, value, descend));
}

TOVI_API const char *tovi_xml_element_getattr(tovi_xml_node_s *node, const char *name)
{
    return is_element(mx(node)) && name != nullptr ? mxmlElementGetAttr(mx(node), name) : nullptr;
}

TOVI_API int tovi_xml_element_attrcount(tovi_xml_node_s *node)
{
    return is_element(mx(node)) ? mxmlElementGetAttrCount(mx(node)) : 0;
}

TOVI_API const char *tovi_xml_element_attrat(tovi_xml_node_s *node, int index, const char **name)
{
    if (!is_element(mx(node)) || index < 0 || index >= mxmlElementGetAttrCount(mx(node)))
        return nullptr;
    return mxmlElementGetAttrByIndex(mx(node), index, name);
}

TOVI_API const char *tovi_xml_element_getname(tovi_xml_node_s *node)
{
    return is_element(mx(node)) ? mxmlGetElement(mx(node)) : nullptr;
}

TOVI_API const char *tovi_xml_element_gettext(tovi_xml_node_s *node)
{
    if (!is_element(mx(node)))
        return nullptr;
    for (mxml_node_t *c = mxmlGetFirstChild(mx(node)); c != nullptr; c = mxmlGetNextSibling(c)) {
        if (mxmlGetType(c) == MXML_OPAQUE) {
            const char *text = mxmlGetOpaque(c);
            return text != nullptr ? text : "";
        }
    }
    return "";
}

TOVI_API tovi_xml_node_s *tovi_xml_element_first(tovi_xml_node_s *node)
{
    return node == nullptr ? nullptr : tv(element_from(mxmlGetFirstChild(mx(node))));
}

TOVI_API tovi_xml_node_s *tovi_xml_element_next(tovi_xml_node_s *node)
{
    return node == nullptr ? nullptr : tv(element_from(mxmlGetNextSibling(mx(node))));
}

}  // extern "C"
