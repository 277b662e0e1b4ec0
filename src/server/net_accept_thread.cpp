#include "server/net_accept_thread.h"

#include <cstdio>

#include <sys/socket.h>

#include "base/fd.h"
#include "net/sock.h"
#include "server/phone_server.h"
#include "video/app_events.h"

void NetAcceptThread::run()
{
    PhoneServer* server = server_;
    if (server != nullptr && fd_load(&server->server_socket) != -1) {
        do {
            const int client = sock_accept(fd_load(&server->server_socket));
            if (client == -1) {
                // Kept on purpose (docs/KEPT.md): the text as it has always been spelled.
                puts("mirroring server socket error, accept stoped!");
                break;
            }
            const int current = fd_load(&server->video_socket);
            if (current == -1) {
                fd_store(&server->video_socket, client);
                printf("mirroring client connected, socket:%d!\n", client);
                app_post_event(EVENT_CLIENT_CONNECTED);
                continue;
            }
            // A zero-byte send fails only once the old connection carries an error (reset by
            // the peer); a phone that merely closed still passes and keeps its place (kept on
            // purpose: docs/KEPT.md).
            const char probe = 0;
            if (send(current, &probe, 0, MSG_NOSIGNAL) != -1) {
                printf("mirroring is connected, will close accept socket:%d!\n", client);
                int newcomer = client;
                socket_close_guarded(&newcomer);
            } else {
                printf("mirroring use new client connection, old socket:%d, new socket:%d!\n", current,
                       client);
                // The old connection is shut down, which ends its stream; the main thread closes it
                // once that stream is joined. The field changes in one store.
                sock_shutdown(current, SHUT_RDWR);
                fd_store(&server->video_socket, client);
                app_post_event(EVENT_CLIENT_CONNECTED, current);
            }
        } while (server_ != nullptr && fd_load(&server->server_socket) != -1);
    }
    puts("mirroring accept thread end!");
}
