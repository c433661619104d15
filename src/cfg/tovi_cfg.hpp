// Internals of the configuration files: the line parser, the node helpers
// shared by the loader, the lookups and the editors, and the name index.
//
// A node's lists are the truth. Name indexes (of a node's sections, of a
// section's items) are optional accelerators for big files: each is built by
// a writer the first time a linear search runs long, kept exact by every
// change made here, and simply dropped (searches scan the lists again) when
// it cannot grow. Sections are made only by new_section: they carry the
// module's private tail.
#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

#include "tovi_cfg.h"
#include "tovi_list.hpp"

namespace tovi::cfg {

// Every allocation of the module, charged to the library's module number.
// A test may make the n-th next one fail (1 = the next) to check that no
// failure leaves anything half-built; 0 disables that.
void *alloc(uint32_t size, const char *func, uint32_t line);
void fail_allocation(uint32_t nth);

#define CFG_MALLOC(size) ::tovi::cfg::alloc((size), __func__, __LINE__)

// Opens a configuration file without blocking on a FIFO, then checks the
// descriptor: a regular file of at most TOVI_CFG_FILE_MAX bytes, opened
// blocking again. -1 (logged, naming the file) otherwise; nothing is changed.
int open_regular(const char *path, int flags, mode_t mode = 0);
// The same checks on a descriptor already open. 0 or -1 (logged).
int check_regular(int fd, const char *path);

inline constexpr uint32_t kHeaderMax = 65;                       // "[" name "]"
inline constexpr uint32_t kRenderSlack = 4194432;                // a full item and a header
inline constexpr int32_t kContinue = 1;                          // parse callback: go on

// Reads the lines of a descriptor exactly as repeated tovi_readline calls
// with a buffer of line_max + 1 bytes would (carriage returns dropped, a line
// cut after line_max bytes), but in blocks. A line is handed out without its
// line feed, NUL-terminated, in memory the caller may change until the next
// call. The block must not be longer than line_max. Sizes other than the
// parser's serve the tests.
class LineReader {
public:
    // `path` names the file in the log when a read fails.
    LineReader(int fd, size_t block = 64 * 1024, size_t line_max = TOVI_CFG_LINE_MAX, const char *path = nullptr);
    ~LineReader();
    LineReader(const LineReader &) = delete;
    LineReader &operator=(const LineReader &) = delete;

    // Allocates the block buffer. False (logged) when there is no memory.
    bool start();
    // 1 with a line, 0 at end of file, -1 (logged) on a read error (EINTR is
    // retried), after TOVI_CFG_FILE_MAX bytes, or when the buffer for a long
    // line cannot be had.
    int next(char **line, size_t *len);
    // Whether a NUL byte was read so far (lines then end at their first NUL).
    bool may_hold_nul() const { return has_nul_; }

private:
    bool fill();  // false on a read error or an overlong file (logged)
    int long_line(char **line, size_t *len);

    int fd_;
    const char *path_;
    size_t block_;
    size_t line_max_;
    char *buf_ = nullptr;  // block_ + 1 bytes
    char *big_ = nullptr;  // line_max_ + 1 bytes, for lines longer than a block
    size_t pos_ = 0;       // first unread byte
    size_t end_ = 0;       // end of the data read
    size_t scanned_ = 0;   // bytes after pos_ known to hold no line feed
    uint64_t total_ = 0;   // bytes read so far
    bool eof_ = false;
    bool has_cr_ = false;   // a carriage return was read
    bool has_nul_ = false;  // a NUL byte was read
};

// The per-item callback of the line parser: (node or NULL, current section,
// item on the stack with its name and a pointer to the value, context).
// kContinue goes on; anything else stops the parse and is its result.
using ParseCallback = int32_t (*)(CfgFileNode *node, const char *section, CfgItemNode *item, void *ctx);

// Runs the line parser over the descriptor from its current offset to its
// end. 0 at end of file, -1 on a read error (logged with `path`) or when the
// line buffer cannot be had, or the callback's stopping result. The
// descriptor's offset afterwards is unspecified.
int32_t tovi_cfg_ini_fd_parse(int fd, CfgFileNode *node, ParseCallback callback, void *ctx,
                              const char *path = nullptr);

// Parses a descriptor (from offset 0) into a new node named `name`; NULL on
// any failure, nothing left allocated.
CfgFileNode *parse_fd_node(int fd, const char *name, ParseCallback callback, void *ctx);

// Parses a file into a new node (its write lock held meanwhile); NULL on
// any failure, nothing left allocated.
CfgFileNode *tovi_cfg_ini_file_parse(const char *path, ParseCallback callback, void *ctx);

// The loader's context (it may be NULL): the section of the last item, and
// whether any item had to be left out (an edit must not go on without it).
struct LoadCache {
    CfgSectionNode *last;
    bool dropped;
};

// Loader callback: files the item in its section (later duplicates win).
// Always kContinue; a failure is logged and the item is left out.
int32_t tovi_cfg_file_proc(CfgFileNode *node, const char *section, CfgItemNode *item, void *ctx);

// Single-lookup callback; ctx is a CfgGetParam.
int32_t tovi_cfg_getFromFile_proc(CfgFileNode *node, const char *section, CfgItemNode *item, void *ctx);

// Streaming callback of tovi_cfg_write_item_to_file; ctx is a CfgWriteParam.
int32_t tovi_write_item_func(CfgFileNode *node, const char *section, CfgItemNode *item, void *ctx);

// The end of a rewrite that never met its target item: the item, after a
// header unless the last section written is the target's. 0 or 22.
int32_t append_target(CfgWriteParam *p);

// Names the parser accepts: letters, digits and '_' only (empty included).
bool valid_name(const char *s, size_t len);

// The records around list links.
inline CfgFileNode *file_of(list::Node *n)
{
    return list::entry<CfgFileNode>(n, offsetof(CfgFileNode, stList));
}

inline CfgSectionNode *section_of(list::Node *n)
{
    return list::entry<CfgSectionNode>(n, offsetof(CfgSectionNode, stList));
}

inline CfgItemNode *item_of(list::Node *n)
{
    return list::entry<CfgItemNode>(n, offsetof(CfgItemNode, stList));
}

// ---- Nodes (callers hold the node's write lock where they change it, a
// read lock at least where they only look) ----

CfgFileNode *new_file_node(const char *path);
void free_file_node(CfgFileNode *node);
// Takes the node's write lock, then frees it: waits out every holder.
void free_file_node_locked(CfgFileNode *node);
void free_item(CfgItemNode *item);

// An item as the loader makes it: name and value copied, the value in the
// same block. NULL (logged) when there is no memory.
CfgItemNode *new_loaded_item(const char *name, size_t name_len, const char *value, size_t value_len);
// Appends the item to its section, replacing an item of the same name,
// which is returned unlinked (or NULL) for the caller to free.
CfgItemNode *put_item(CfgFileNode *node, CfgSectionNode *sec, CfgItemNode *item);

// First section / item of that name. `may_build` lets a writer build the
// index when the scan runs long.
CfgSectionNode *find_section(CfgFileNode *node, const char *name, bool may_build);
CfgItemNode *find_item(CfgFileNode *node, CfgSectionNode *sec, const char *name, bool may_build);

// An empty unlinked section, or NULL (logged).
CfgSectionNode *new_section(const char *name);
void append_section(CfgFileNode *node, CfgSectionNode *sec);
void append_item(CfgFileNode *node, CfgSectionNode *sec, CfgItemNode *item);
// Unlink (and forget in the index); freeing is the caller's.
void remove_item(CfgFileNode *node, CfgSectionNode *sec, CfgItemNode *item);
void remove_section(CfgFileNode *node, CfgSectionNode *sec);
// Frees a section and every item in it (all already unlinked from the node).
void free_section(CfgSectionNode *sec);

// Replaces an item's value with a copy of `value`. 0 or -1 (logged).
int32_t replace_value(CfgItemNode *item, const char *value);

// Unlinks a list node after checking its neighbours (a broken neighbour is
// reported and the unlink goes on).
void unlink_node(list::Node *n);

// The whole text of a node as written to a file: sum of "[%s]\n" and "%s=%s\n".
size_t rendered_size(const CfgFileNode *node);

// ---- Global list (callers hold g_stCfgRwlock unless said otherwise) ----

list::Node *file_list();
CfgFileNode *find_file(const char *path);
// Puts `node` in the list in place of the loaded node of its path (taking
// its reference count) and returns that node unlinked, not freed; NULL, and
// `node` left out, when its path is not loaded. Takes g_stCfgRwlock.
CfgFileNode *swap_file_node(CfgFileNode *node);

// ---- The library's own settings ----

// The library's settings file: $TOVI_CFG_LIBRARY_FILE when set and not
// empty, else TOVI_CFG_LIBRARY_FILE.
const char *library_file();

// Reads item `item` of section "TOVI" with tovi_cfg_getItemValue, first
// loading the library's settings file once per process when it exists.
int32_t library_setting(const char *item, char *buf, uint32_t size);

// ---- Advisory locking of a file being edited ----

// Takes the exclusive whole-file lock on `fd` (retried while interrupted).
// When the path was renamed over while waiting, the lock is on a file that
// is no longer the path's: reopen the path (read-write, `flags` added) and
// lock that instead, until the locked file is the path's. Returns the
// descriptor holding the lock: `fd` or a new one the caller closes. A lock
// failure is logged ("Add flock failed, errno = %d") and the edit goes on.
int lock_current(int fd, const char *path, int flags);

}  // namespace tovi::cfg
