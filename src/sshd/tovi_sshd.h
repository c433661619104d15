/**
 * @file
 * The SSH daemon's TCP port: read from "/etc/ssh/sshd_config", changed there
 * and kept in "/startup_disk/conf/conf_local/sshd_port.conf" so that it
 * survives a reinstallation of the system disk. These functions log under
 * module 0.
 *
 * The port change flushes the kept copy with the command "fsync FILE"; a
 * host without one gets the small `fsync` tool installed with the library.
 */
#ifndef TOVI_SSHD_H
#define TOVI_SSHD_H

#include "tovi_base.h"

TOVI_EXTERN_C_BEGIN

/** The first uncommented "Port N" line's N, 22 when there is none. 0, -22
 * for NULL, or the negative result of opening the file. */
TOVI_API int32_t tovi_get_sshd_port(uint16_t *port);

/** Writes port into the configuration (replacing the Port line, uncommenting
 * a commented one, or appending one) and into the kept copy. 0, -98 when
 * something already listens on port, or the failing command's raw status.
 * The daemon is not restarted. */
TOVI_API int32_t tovi_set_sshd_port(uint16_t port);

/** Restarts the daemon through systemctl, or its init script on a host
 * without systemctl: the command's raw status. */
TOVI_API int32_t tovi_restart_sshd(void);

TOVI_EXTERN_C_END

#endif
