/*
 * One request to the reference connector over its control socket: a line of text there, a line of text back.
 */
#ifndef KR_EXAMPLES_CONNECTOR_CONTROL_H
#define KR_EXAMPLES_CONNECTOR_CONTROL_H

#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

/*
 * Sends `command` to the socket that the environment variable KR_CONNECTOR_CONTROL names and waits for the answer,
 * which is written to `answer` without its newline. Returns 1 when it begins with "ok", else 0. Blocks until the
 * request has completed: a port removal until some other thread has acknowledged it.
 */
static inline int connector_request(const char *command, char *answer, size_t room) {
    const char *path = getenv("KR_CONNECTOR_CONTROL");
    struct sockaddr_un address;
    char line[128];
    size_t size = 0;
    int length;
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);

    memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof address.sun_path, "%s", path != NULL ? path : "/run/krsdnhal/connector");
    length = snprintf(line, sizeof line, "%s\n", command);
    snprintf(answer, room, "cannot reach the connector at %s", address.sun_path);
    if (fd < 0 || connect(fd, (const struct sockaddr *)&address, sizeof address) != 0 ||
        send(fd, line, (size_t)length, MSG_NOSIGNAL) != length) {
        if (fd >= 0) {
            close(fd);
        }
        return 0;
    }
    while (size + 1 < room && memchr(answer, '\n', size) == NULL) {
        ssize_t got = read(fd, answer + size, room - size - 1);
        if (got <= 0) {
            break;
        }
        size += (size_t)got;
    }
    close(fd);
    answer[size] = '\0';
    answer[strcspn(answer, "\n")] = '\0';
    return strncmp(answer, "ok", 2) == 0;
}

#endif
