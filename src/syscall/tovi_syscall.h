/**
 * @file
 * Private system calls: numbered operations grouped by module. One side
 * registers a group of handlers, the other invokes a command with an input
 * and an output buffer.
 *
 * Command numbers: (group << 8) | operation, groups 0 to 31. On the platform
 * kernel a command is reached through system call 259; in a user-space
 * process the same registry is served over loopback TCP (127.0.0.1 port
 * 5583): a server thread "syscall_thr" accepts connections and one worker
 * "syscall_do_thr" per connection reads requests, calls the registered
 * handler and sends the answer back. NUBO_SysCall is the client.
 *
 * Wire format, both directions, little-endian: a 32-byte header (command u32,
 * 4 zero bytes, payload length u64, output capacity u64, result i64; the
 * result is -1 for an unknown command) followed by the payload. Requests
 * carry at most TOVI_SYSCALL_BUF_LEN payload bytes and ask for at most as
 * much output; anything larger is refused with result -1 (a payload above
 * 1 MiB closes the connection).
 *
 * Who starts the server: nobody implicitly. tovi_Init does not; a process
 * that serves private system calls to its own user calls
 * NUBO_PrivateSysCallInit once after tovi_Init (or after registering its
 * groups) and NUBO_PrivateSysCallIntfExit before it unloads the library or
 * exits. The exit closes the listening socket and every connection and
 * returns once no server or worker thread is left, so a later init starts
 * afresh.
 *
 * Who may call: only peers whose socket belongs to the server's effective
 * user (looked up through the kernel's socket-diagnostics interface); other
 * users' connections are closed unless the setting SYSCALL_ALLOW_OTHER_USERS
 * of section "TOVI" is 1. SYSCALL_MAX_CONNECTIONS (default 64) bounds the
 * connections served at once; excess ones are closed at once. A peer that
 * stalls inside a message for more than SYSCALL_STALL_MS milliseconds
 * (default 10000) loses its connection.
 *
 * Direct and indirect handlers are called alike, with the command number
 * and the call record. Registration is meant for start-up: a group may be
 * unregistered only while none of its handlers runs.
 *
 * The user-space companion serves its own commands (0x401, 0x402, 0x800,
 * ...) from this registry too: their groups are registered at its first
 * use, and their handlers take addresses of the calling process, so over the
 * wire they answer -1.
 */
#ifndef TOVI_SYSCALL_H
#define TOVI_SYSCALL_H

#include "tovi_base.h"

TOVI_EXTERN_C_BEGIN

#define TOVI_SYSCALL_GROUPS 32u        /**< group ids 0 to 31 */
#define TOVI_SYSCALL_GROUP_MAX 255u    /**< entries per group at most */
#define TOVI_SYSCALL_DIRECT 0u         /**< handler type 0; both types are called alike */
#define TOVI_SYSCALL_INDIRECT 1u       /**< handler type 1; both types are called alike */
#define TOVI_SYSCALL_PORT 5583u        /**< loopback port of the server */
#define TOVI_SYSCALL_BUF_LEN 510u      /**< the server's input and output buffers */
#define TOVI_SYSCALL_REPLY_MAX 0x100000u /**< a longer reply ends the connection */
#define TOVI_SYSCALL_MAX_CONNECTIONS 64u /**< default bound of served connections */

/** What a handler receives: its input, and the output buffer it fills. */
typedef struct tovi_syscall_call_s {
    uint32_t uiInLen;     /**< bytes at pucInBuf */
    uint32_t uiOutBufLen; /**< capacity of pucOutBuf */
    uint32_t uiOutLen;    /**< bytes the handler wrote; 0 on entry */
    const uint8_t *pucInBuf; /**< the request's input */
    uint8_t *pucOutBuf;      /**< the buffer for the reply */
} tovi_syscall_call_s;

/** A handler: the command number and the call record; returns its result. */
typedef int32_t (*tovi_syscall_fn)(uint32_t cmd, tovi_syscall_call_s *call);

/** One command of a group, as registered. */
typedef struct tovi_syscall_entry_s {
    uint32_t uiCmd;  /**< (group << 8) | operation */
    uint32_t uiType; /**< TOVI_SYSCALL_DIRECT or TOVI_SYSCALL_INDIRECT */
    tovi_syscall_fn pfnSysCall; /**< the handler */
} tovi_syscall_entry_s;

/** Checks a group's entries: a list, at most 255 of them, each of type 0 or
 * 1, of the group and with a handler. 0, or -1 with the fault logged. */
TOVI_API int32_t NUBO_CheckGroupCalls(uint32_t group, const tovi_syscall_entry_s *calls, uint32_t count);

/** Registers a group (copying its entries). 0; -1 for a group above 31,
 * entries that fail NUBO_CheckGroupCalls, a group registered already or no
 * memory. */
TOVI_API int32_t NUBO_RegSysCall(uint32_t group, const tovi_syscall_entry_s *calls, uint32_t count);

/** Empties a group's slot. 0, or -1 for a group above 31. */
TOVI_API int32_t NUBO_UnRegSysCall(uint32_t group);

/** The entry of `cmd`, or NULL (logged when its group is not registered). */
TOVI_API const tovi_syscall_entry_s *NUBO_FindSysCall(uint32_t cmd);

/** Starts the loopback server thread once. 0, or -1 ("Initial syscall
 * interface fail." logged) when the thread could not start. */
TOVI_API int32_t NUBO_PrivateSysCallInit(void);

/** The same as NUBO_PrivateSysCallInit. */
TOVI_API int32_t NUBO_SyscallInit(void);

/** Binds 127.0.0.1 port 5583 and starts the server thread: 0, or -1 when
 * the socket could not be bound (logged) or the thread not started. A
 * second call while the server runs returns 0. */
TOVI_API int32_t NUBO_PrivateSysCallIntfInit(void);

/** Stops the server: closes the listening socket and every connection,
 * waits until the server and its workers have ended. Nothing when it does
 * not run. */
TOVI_API void NUBO_PrivateSysCallIntfExit(void);

/** Calls `cmd` on this process's server over loopback. `call` may be NULL
 * (no input, no output); on return its uiOutLen holds the reply's length.
 * The handler's result, or -1 (also for an unknown command, a reply longer
 * than uiOutBufLen, which is discarded, and a broken connection). Calls of
 * one process are serialised over one connection. */
TOVI_API int32_t NUBO_SysCall(uint32_t cmd, tovi_syscall_call_s *call);

/** The platform's extended netlink channel to its kernel companion. Its
 * protocol belongs to the platform's kernel module, which this library does
 * not define, so these are not provided: create returns -1, listen returns
 * -1 and release does nothing (errno ENOSYS). */
TOVI_API int32_t NUBO_Netlink_ext3_create(uint32_t unit);
/** Not provided: -1 (errno ENOSYS). */
TOVI_API int32_t NUBO_Netlink_ext3_listen(int32_t handle, void *buf, uint32_t len);
/** Not provided: does nothing. */
TOVI_API void NUBO_Netlink_ext3_release(int32_t handle);

TOVI_EXTERN_C_END

#endif
