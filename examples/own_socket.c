/* The application owns its sockets: what arrives goes into the session, what the session puts out
 * goes onto the socket. Two ends on loopback, in one loop. */
#define _POSIX_C_SOURCE 200809L
#include <arpa/inet.h>
#include <poll.h>
#include <stdio.h>
#include <sys/socket.h>
#include <tarn/tarn.h>
#include <unistd.h>

enum { MESSAGES = 3, TURNS = 500, TURN_MS = 10 };

struct end {
  const char *name;
  int fd;
  void *session;
  int received;
};

/* Runs on this thread, and on the library's worker for what is sent again. */
static int send_datagram(char *data, int len, void *user) {
  const struct end *end = user;
  if (send(end->fd, data, (size_t)len, 0) < 0) perror(end->name); /* as if lost: it comes again */
  return 0;
}

static int on_message(char *data, int len, void *user) {
  struct end *end = user;
  ++end->received;
  printf("%s got \"%.*s\"\n", end->name, len, data);
  return 0;
}

static int bind_to_loopback(struct sockaddr_in *address) {
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  socklen_t size = sizeof *address;
  *address = (struct sockaddr_in){.sin_family = AF_INET};
  address->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(fd, (struct sockaddr *)address, size) != 0) perror("bind");
  getsockname(fd, (struct sockaddr *)address, &size);
  return fd;
}

static void open_end(struct end *end, const struct sockaddr_in *peer) {
  if (connect(end->fd, (const struct sockaddr *)peer, sizeof *peer) != 0) perror("connect");
  end->session = tarn_create();
  tarn_set_conv(end->session, 1); /* the same at both ends */
  tarn_set_output_callback(end->session, send_datagram, end);
  tarn_set_recv_reliable_callback(end->session, on_message, end);
}

static void take_datagram(struct end *end) {
  char datagram[65536];
  const ssize_t size = recv(end->fd, datagram, sizeof datagram, MSG_DONTWAIT);
  if (size > 0) tarn_input(end->session, datagram, (int)size);
}

int main(void) {
  /* Static: the worker may still be at an end when main() returns. */
  static struct end ends[2] = {{.name = "alice"}, {.name = "bob"}};
  struct sockaddr_in addresses[2];
  tarn_init();
  for (int i = 0; i < 2; ++i) ends[i].fd = bind_to_loopback(&addresses[i]);
  for (int i = 0; i < 2; ++i) open_end(&ends[i], &addresses[1 - i]);
  for (int i = 0; i < MESSAGES; ++i) {
    tarn_send_reliable(ends[0].session, "hello", 5);
    tarn_send_reliable(ends[1].session, "good day", 8);
  }
  for (int i = 0; i < TURNS && ends[0].received + ends[1].received < 2 * MESSAGES; ++i) {
    struct pollfd ready[2] = {{ends[0].fd, POLLIN, 0}, {ends[1].fd, POLLIN, 0}};
    poll(ready, 2, TURN_MS);
    for (int k = 0; k < 2; ++k) take_datagram(&ends[k]);
  }
  for (int i = 0; i < 2; ++i) tarn_destroy(ends[i].session);
  return ends[0].received == MESSAGES && ends[1].received == MESSAGES ? 0 : 1;
}
