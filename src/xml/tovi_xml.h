/**
 * @file
 * XML documents through Mini-XML: load a whole document from a descriptor
 * or a file, find elements, read attributes and text, walk child elements,
 * and release the tree with one call.
 *
 * A load returns the document node (named "#document"); the declaration,
 * comments (elements named "!--...") and the root element are its children.
 * The parser is lenient about some forms (unquoted attribute values, a
 * last element cut short at the end of the input); callers that need a
 * strict schema check the tree, as the bay reader does.
 *
 * A loaded tree belongs to the caller until tovi_xml_free; the strings the
 * getters return live as long as the tree. Text between elements is kept as
 * it stands (no white space is dropped), one text node per run of text. A
 * tree may be read by several threads at once; loading is safe in any
 * thread (the parser's error hook is per thread).
 *
 * Results: NULL for a failed load (parse errors are logged at level 3 as
 * "xml: <the parser's message>.") and for a look-up that finds nothing or
 * gets a NULL argument.
 */
#ifndef TOVI_XML_H
#define TOVI_XML_H

#include "tovi_base.h"

TOVI_EXTERN_C_BEGIN

/** A node of a loaded tree (the document itself, an element or text). */
typedef struct tovi_xml_node_s tovi_xml_node_s;

/** Search only the children of the starting node. */
#define TOVI_XML_NO_DESCEND 0
/** Search the whole subtree. */
#define TOVI_XML_DESCEND 1
/** Descend from the starting node once, then search its siblings. */
#define TOVI_XML_DESCEND_FIRST (-1)

/** Reads `fd` to its end and returns the document, or NULL when it is not
 * well-formed, holds no element or cannot be read ("xml: no element in the
 * document.") or stops inside a tag after an element ("xml: the document is
 * cut short or unreadable."). */
TOVI_API tovi_xml_node_s *tovi_xml_loadfd(int fd);

/** Opens `path` and loads it as tovi_xml_loadfd does; NULL also when it
 * cannot be opened or is a directory ("xml: cannot open <path>: <reason>.").
 * A FIFO is read without waiting for a writer: without one it is empty. */
TOVI_API tovi_xml_node_s *tovi_xml_loadfile(const char *path);

/** Releases a tree returned by a load function, whole; NULL is ignored. */
TOVI_API void tovi_xml_free(tovi_xml_node_s *tree);

/** The next element after `node` within `top` named `name` (NULL: any name)
 * that has attribute `attr` (NULL: any) with value `value` (NULL: any value),
 * searching as `descend` says; NULL when there is none. */
TOVI_API tovi_xml_node_s *tovi_xml_findelement(tovi_xml_node_s *node, tovi_xml_node_s *top, const char *name,
                                               const char *attr, const char *value, int descend);

/** The value of attribute `name` of element `node`, or NULL. */
TOVI_API const char *tovi_xml_element_getattr(tovi_xml_node_s *node, const char *name);

/** The number of attributes of element `node` (0 for NULL or a non-element). */
TOVI_API int tovi_xml_element_attrcount(tovi_xml_node_s *node);

/** Attribute `index` of element `node`: its value, with its name in `*name`; NULL past the end. */
TOVI_API const char *tovi_xml_element_attrat(tovi_xml_node_s *node, int index, const char **name);

/** The name of element `node`, or NULL for anything else. */
TOVI_API const char *tovi_xml_element_getname(tovi_xml_node_s *node);

/** The text of element `node` (its first text child), "" when it has none, NULL for a non-element. */
TOVI_API const char *tovi_xml_element_gettext(tovi_xml_node_s *node);

/** The first child element of `node` (text is skipped), or NULL. */
TOVI_API tovi_xml_node_s *tovi_xml_element_first(tovi_xml_node_s *node);

/** The next sibling element of `node` (text is skipped), or NULL. */
TOVI_API tovi_xml_node_s *tovi_xml_element_next(tovi_xml_node_s *node);

TOVI_EXTERN_C_END

#endif
