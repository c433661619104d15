/**
 * @file
 * Ini-style configuration files: parsed, cached, queried and edited.
 *
 * A file is parsed into a file node (sections in file order, each with its
 * items in file order) and kept in one process-wide list of loaded files,
 * newest first. Lookups search one loaded file or all of them; in-memory
 * setters change only the cache. The file editors re-parse the file on disk,
 * apply one change, write the result to "<path>.temp" (the real file's
 * permission bits, owner and group), flush it and rename it over the file,
 * all under an exclusive advisory lock on the real file, and refresh the
 * cache when that file is loaded. tovi_cfg_write_item_to_file instead
 * rewrites the file in place and flushes it before it succeeds.
 *
 * Hostile files: only regular files are read or edited (a device, FIFO,
 * socket or directory is refused with -1, untouched, and nothing blocks on
 * it); a file larger than TOVI_CFG_FILE_MAX bytes is refused; a read error
 * fails the parse or the edit. An edit of a symbolic link edits the file it
 * points to (resolved once; the link stays). When an edit fails at any step
 * the file on disk is left as it was and the loaded copy, if any, agrees
 * with it.
 *
 * What the parser accepts, one record a line:
 *   - carriage returns are dropped everywhere; a line of more than
 *     TOVI_CFG_LINE_MAX bytes is cut there and the rest read as a new line;
 *   - trailing blanks, tabs, CR and LF are trimmed; empty lines are skipped;
 *   - "[name]" in the first column, at most 65 bytes, the name (trimmed)
 *     of letters, digits and '_' only (possibly empty), opens a section;
 *   - a line whose first byte is ';' or '=' is a comment;
 *   - "key = value": split at the first '=', both sides trimmed; the key of
 *     letters, digits and '_' below 64 bytes; the value kept verbatim,
 *     below TOVI_CFG_VALUE_MAX bytes, and may contain '=' and blanks;
 *   - items before any header belong to the section "NULL";
 *   - a key repeated in a section: the later line wins and moves to the end;
 *     repeated headers merge into the first section of that name;
 *   - every other line is skipped. Names compare exactly (case-sensitive).
 * Files written here contain only "[%s]\n" headers and "%s=%s\n" items.
 *
 * Locks: g_stCfgRwlock guards the list's membership, each node's own lock
 * its sections and items; the list lock is always taken first.
 *
 * Results: 0 success, -1 failure, TOVI_CFG_ERR_BUFSIZE for an output buffer
 * too small for the value.
 */
#ifndef TOVI_CFG_H
#define TOVI_CFG_H

#include "tovi_base.h"

TOVI_EXTERN_C_BEGIN

#define TOVI_CFG_PATH_MAX 256u         /**< file path, NUL included */
#define TOVI_CFG_NAME_MAX 64u          /**< section and item names, NUL included */
#define TOVI_CFG_VALUE_MAX 4194304u    /**< item value, NUL included */
#define TOVI_CFG_LINE_MAX 4194369u     /**< bytes of one line; longer lines are split */
#define TOVI_CFG_FILE_MAX 268435456u  /**< bytes of a file; larger ones are refused */
#define TOVI_CFG_RESULT_VALUE_MAX 256u /**< value in a CfgItemResult, NUL included */
#define TOVI_CFG_ERR_BUFSIZE (-10000)  /**< the value does not fit the caller's buffer */

/** Where the library reads its own settings (section "TOVI"), loaded once
 * per process on first use; the environment variable named by
 * TOVI_CFG_LIBRARY_FILE_ENV, when set and not empty, names another file. */
#define TOVI_CFG_LIBRARY_FILE "/ZSR/conf/tovi.ini"
#define TOVI_CFG_LIBRARY_FILE_ENV "TOVI_CFG_LIBRARY_FILE"  /**< environment variable naming another settings file */
#define TOVI_CFG_LIBRARY_SECTION "TOVI"  /**< section of the library's own settings */

/** One item: a link in its section's item list, the name and the value, a
 * separately allocated string owned by the item. */
typedef struct CfgItemNode {
    tovi_list_head_s stList;  /**< link in its section's item list */
    char acItemName[TOVI_CFG_NAME_MAX];  /**< item name */
    char *pItemValue;  /**< value, owned by the item */
} CfgItemNode;

/** One section: a link in its file's section list and the head of its items. */
typedef struct CfgSectionNode {
    tovi_list_head_s stList;  /**< link in its file's section list */
    tovi_list_head_s stItemHead;  /**< head of its items */
    char acSectionName[TOVI_CFG_NAME_MAX];  /**< section name */
} CfgSectionNode;

/** One parsed file. llRwlock (a reader-writer spin lock of tovi_lock.h)
 * guards the sections and items; uiRefCnt counts tovi_cfg_init_ex calls not
 * yet matched by tovi_cfg_destroy_ex. pIndex is the node's private name
 * index: sections and items are changed only through this interface. */
typedef struct CfgFileNode {
    tovi_list_head_s stList;  /**< link in the list of loaded files */
    tovi_list_head_s stSectionHead;  /**< head of its sections */
    char acFileName[TOVI_CFG_PATH_MAX];  /**< path as loaded */
    int64_t llRwlock;  /**< guards the sections and items */
    uint32_t uiRefCnt;  /**< loads not yet released */
    void *pIndex;  /**< private name index */
} CfgFileNode;

/** What tovi_cfg_getItemFromFile returns. */
typedef struct CfgItemResult {
    char acItemName[TOVI_CFG_NAME_MAX];  /**< item name */
    char acItemValue[TOVI_CFG_RESULT_VALUE_MAX];  /**< value, at most 255 bytes */
} CfgItemResult;

/** Lookup context of tovi_cfg_getItemFromFile; iResult starts at -1. */
typedef struct CfgGetParam {
    const char *pSection;  /**< section looked for */
    const char *pItemName;  /**< item looked for */
    int32_t iResult;  /**< 0 once found, -1 before */
    CfgItemResult *pItemResult;  /**< where the match is copied */
} CfgGetParam;

/** Context of tovi_cfg_write_item_to_file while it streams the file. */
typedef struct CfgWriteParam {
    uint32_t uiWritten;                        /**< the target item has been emitted */
    char acLastSection[TOVI_CFG_NAME_MAX];     /**< last section emitted, "" at first */
    char acSection[TOVI_CFG_NAME_MAX];         /**< target section */
    char acItemName[TOVI_CFG_NAME_MAX];        /**< target item */
    char *pItemValue;                          /**< copy of the new value */
    char *pBuffer;                             /**< the new text */
    uint32_t bufIndex;                         /**< bytes of pBuffer used */
    uint32_t bufSize;                          /**< bytes of pBuffer */
} CfgWriteParam;

/** One edit of tovi_cfg_file_writeOperate; item and value may be NULL where
 * the operation does not use them. */
typedef struct CfgEditParam {
    const char *pFile;  /**< path of the file */
    const char *pSection;  /**< section */
    const char *pItemName;  /**< item, or NULL */
    const char *pItemValue;  /**< value, or NULL */
} CfgEditParam;

/** An operation on a node: (node, section, item, value). 0 or -1. */
typedef int32_t (*tovi_cfg_node_proc_f)(CfgFileNode *pNode, const char *pSection, const char *pItemName,
                                        const char *pItemValue);

/** Visitor of tovi_cfg_walk: a section (item and value NULL) or one of its
 * items. A non-zero result stops the walk. */
typedef int32_t (*tovi_cfg_visit_f)(const char *pSection, const char *pItemName, const char *pItemValue,
                                    void *pArg);

/** Guards the membership of the list of loaded files. */
TOVI_API extern int64_t g_stCfgRwlock;

/* ---- Loaded files ---- */

/** Same as tovi_cfg_init_ex. */
TOVI_API int32_t tovi_cfg_init(const char *pFile);
/** Parses the file and puts it at the head of the loaded list; a loaded node
 * of that path is replaced and its count carried over plus one (else the
 * count is 1). 0, or -1 for a NULL path or a file that cannot be parsed. */
TOVI_API int32_t tovi_cfg_init_ex(const char *pFile);
/** Drops one reference; the node is freed when none is left. 0 also for a
 * path that is not loaded; -1 for a NULL path. */
TOVI_API int32_t tovi_cfg_destroy_ex(const char *pFile);
/** Frees every loaded node whatever its count. Always 0. */
TOVI_API int32_t tovi_cfg_destroy(void);

/** Copies the value of the first matching item of all loaded files (newest
 * first) with its NUL. 0; -1 for a NULL or zero argument or when not found;
 * TOVI_CFG_ERR_BUFSIZE when uiSize is below the value's length + 1. */
TOVI_API int32_t tovi_cfg_getItemValue(const char *pSection, const char *pItemName, char *pItemValue,
                                       uint32_t uiSize);
/** As tovi_cfg_getItemValue in the loaded file of that path only. -1 also
 * when the file is not loaded. */
TOVI_API int32_t tovi_cfg_getItemValue_ex(const char *pFile, const char *pSection, const char *pItemName,
                                          char *pItemValue, uint32_t uiSize);
/** Replaces the value of the first matching item of all loaded files, in
 * memory only; never creates an item. 0, or -1 (NULL argument, no such
 * item, value too long, no memory). */
TOVI_API int32_t tovi_cfg_setItemValue(const char *pSection, const char *pItemName, const char *pItemValue);
/** As tovi_cfg_setItemValue in the loaded file of that path only. */
TOVI_API int32_t tovi_cfg_setItemValue_ex(const char *pFile, const char *pSection, const char *pItemName,
                                          const char *pItemValue);
/** Visits the loaded file of that path in order under its read lock (the
 * visitor must not change that file). 0 or the visitor's non-zero result;
 * -1 for a NULL argument or a file that is not loaded. */
TOVI_API int32_t tovi_cfg_walk(const char *pFile, tovi_cfg_visit_f pfnVisit, void *pArg);

/* ---- Files on disk ---- */

/** Parses the file without caching it and copies the first matching item
 * (value up to 255 bytes) into pResult. 0 found; -1 not found or error. */
TOVI_API int32_t tovi_cfg_getItemFromFile(const char *pFile, const char *pSection, const char *pItemName,
                                          CfgItemResult *pResult);
/** Sets or adds one item by rewriting the file in place (created with mode
 * 0600 when missing). Quirks kept on purpose: sections without items are
 * dropped, items before any header get a "[NULL]" header, and within a
 * section every item after its first that has the target's name takes the
 * new value, whatever the section. The cache is not touched. 0; -1, or 22
 * when the new text outgrows its buffer; the file is unchanged unless the
 * write itself fails part-way (there is no temporary copy). */
TOVI_API int32_t tovi_cfg_write_item_to_file(const char *pFile, const char *pSection, const char *pItemName,
                                             const char *pItemValue);

/** @{ */
/** The editors: open the existing file, run tovi_cfg_file_writeOperate with
 * one operation and close it. 0; -1 on failure (the file then unchanged). */
TOVI_API int32_t tovi_cfg_file_addItem(const char *pFile, const char *pSection, const char *pItemName,
                                       const char *pItemValue);
TOVI_API int32_t tovi_cfg_file_setItemValue(const char *pFile, const char *pSection, const char *pItemName,
                                            const char *pItemValue);
TOVI_API int32_t tovi_cfg_file_delItem(const char *pFile, const char *pSection, const char *pItemName);
TOVI_API int32_t tovi_cfg_file_delSection(const char *pFile, const char *pSection);
/** @} */

/** The edit procedure on the open file iFd (which the caller closes): lock,
 * parse, apply, write the temporary file, refresh the cache, flush, rename,
 * unlock. 0, or -1 with the file unchanged. */
TOVI_API int32_t tovi_cfg_file_writeOperate(int32_t iFd, const CfgEditParam *pParam,
                                            tovi_cfg_node_proc_f v_pfnProc);

/** @{ */
/** Node operations, each under the node's write lock. 0 or -1.
 * add: creates the section (at the end) when missing; refuses an existing
 * item. set: replaces an existing item's value. del_item: removes the item,
 * and its section when that becomes empty. del_section: removes the section
 * with its items (item and value unused). */
TOVI_API int32_t tovi_cfg_add_item_func(CfgFileNode *pNode, const char *pSection, const char *pItemName,
                                        const char *pItemValue);
TOVI_API int32_t tovi_cfg_set_item_func(CfgFileNode *pNode, const char *pSection, const char *pItemName,
                                        const char *pItemValue);
TOVI_API int32_t tovi_cfg_del_item_func(CfgFileNode *pNode, const char *pSection, const char *pItemName,
                                        const char *pItemValue);
TOVI_API int32_t tovi_cfg_del_section_func(CfgFileNode *pNode, const char *pSection, const char *pItemName,
                                           const char *pItemValue);
/** @} */

/** A new unlinked item (links to itself) with copies of the name and value,
 * or NULL. Release with TOVI_FREE on pItemValue and then on the item. */
TOVI_API CfgItemNode *tovi_cfg_new_item_node_ex(const char *pItemName, const char *pItemValue);

/** Renders the node ("[%s]\n" per section, "%s=%s\n" per item) and makes it
 * the whole content of iFd. 0 or -1. */
TOVI_API int32_t tovi_cfg_writeFnodeTofile(int32_t iFd, CfgFileNode *pNode);

/** Puts a freshly parsed node in the place of the loaded node of its path
 * (carrying over the count) and frees the old one. 0; -1 when that path is
 * not loaded (nothing changes and the caller keeps the node). */
TOVI_API int32_t tovi_cfg_updateFileNode(CfgFileNode *pNode);

/** Creates "<pFile>.temp" with the permission bits, owner and group of the
 * open file iFd, replacing any file of that name. Its descriptor, with
 * *ppTmpName set to the name (release with TOVI_FREE); -1 on failure. */
TOVI_API int32_t tovi_cfg_create_tmpfile(const char *pFile, int32_t iFd, char **ppTmpName);

/** ---- Custom setting items ----
 * Named values (section, item, value) held by the platform below the
 * library, read and written one request at a time through ioctls on
 * "/proc/kar/syscall" (256 get, 257 set, 258 reload); nothing is cached.
 * With the library's user-space companion (a stock host) the items live in
 * the ini file TOVI_CST_FILE, or the file named by the environment variable
 * TOVI_CST_FILE_ENV when it is set and not empty: read on every get, edited
 * in place by a set (created with mode 0600 when missing, its directory must
 * exist), names of letters, digits and '_' only; reload has nothing to
 * reread there and succeeds. */
#define TOVI_CST_FILE "/ZSR/conf/tovi_cst.ini"
#define TOVI_CST_FILE_ENV "TOVI_CST_FILE" /**< environment variable naming another file */
#define TOVI_CST_SECTION_LEN 35u  /**< section field, NUL included */
#define TOVI_CST_ITEM_LEN 33u     /**< item name field, NUL included */
#define TOVI_CST_VALUE_LEN 257u   /**< item value field, NUL included */

/** The request record of a get or a set (325 bytes, no padding). */
typedef struct CstItemRequest {
    char acSection[TOVI_CST_SECTION_LEN]; /**< section name, NUL-terminated */
    char acItemName[TOVI_CST_ITEM_LEN];   /**< item name, NUL-terminated */
    char acItemValue[TOVI_CST_VALUE_LEN]; /**< used by a set only */
} CstItemRequest;

/** The reply record of a get (290 bytes). */
typedef struct CstItemReply {
    char acItemName[TOVI_CST_ITEM_LEN];   /**< item name, NUL-terminated */
    char acItemValue[TOVI_CST_VALUE_LEN]; /**< its value, NUL-terminated */
} CstItemReply;

/** The ioctl argument: lengths 325/290 for a get, 325/0 for a set. */
typedef struct CstMsgHeader {
    uint32_t uiInLen;     /**< bytes at pIn */
    uint32_t uiOutLen;    /**< bytes at pOut */
    uint64_t ullReserved; /**< 0 */
    void *pIn;            /**< CstItemRequest */
    void *pOut;           /**< CstItemReply, NULL for a set */
} CstMsgHeader;

/** Copies the item's value with its NUL into value (size bytes). 0; -1 on
 * any failure (logged, except for a buffer too small for the value). */
TOVI_API int32_t tovi_cst_getItem(const char *section, const char *itemName, char *value, uint32_t size);
/** Sets the item (section at most 34, item name 32, value 256 characters).
 * 0, or -1 (logged). */
TOVI_API int32_t tovi_cst_setItem(const char *section, const char *itemName, const char *value);
/** Asks the platform to reread its items. 0, or -1 (logged). */
TOVI_API int32_t tovi_cst_reloadConfig(void);

TOVI_EXTERN_C_END

#endif
