/* Sends a large file over UDP, on loopback, no faster than it is taken: each piece is sent when there
 * is room for it, and the writable callback goes on where there was none. The first argument names
 * the file; without one it is 32 MiB made up here. The other end writes a copy, compared at last. */
#define _POSIX_C_SOURCE 200809L
#include <arpa/inet.h>
#include <poll.h>
#include <stdio.h>
#include <sys/socket.h>
#include <tarn/control.h>

enum { MADE_UP_BYTES = 32 << 20, PIECE = 16384 };

struct end {
  int fd;
  void *session;
  FILE *file;        /* what is sent, or the copy */
  char piece[PIECE]; /* that waits for room */
  size_t size;
  int at_end, failed;
};

/* Also the writable callback. Both run on the one thread that feeds the session. */
static void send_more(void *session, void *user) {
  struct end *end = user;
  for (;;) {
    if (end->size == 0) end->size = fread(end->piece, 1, PIECE, end->file);
    end->at_end = end->size == 0;
    /* -EAGAIN: this piece waits, and the callback comes when there is room again. */
    if (end->at_end || tarn_try_send_reliable(session, end->piece, end->size) != 0) return;
    end->size = 0;
  }
}

static int on_message(char *data, int len, void *user) {
  struct end *end = user;
  if (fwrite(data, 1, (size_t)len, end->file) != (size_t)len) end->failed = 1;
  return 0;
}

static int on_error(TarnError code, void *user) {
  struct end *end = user;
  if (code == TARN_ERROR_INACTIVE) end->failed = 1; /* nothing heard for 5 seconds */
  return 0;
}

/* Runs on this thread, and on the library's worker for what is sent again. */
static int send_datagram(char *data, int len, void *user) {
  const struct end *end = user;
  (void)send(end->fd, data, (size_t)len, 0); /* what is refused is as good as lost: it comes again */
  return 0;
}

static void take_datagrams(struct end *end) {
  char datagram[65536];
  ssize_t size;
  while ((size = recv(end->fd, datagram, sizeof datagram, MSG_DONTWAIT)) > 0) {
    tarn_input(end->session, datagram, (int)size);
  }
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

static void open_session(struct end *end, const struct sockaddr_in *peer) {
  if (connect(end->fd, (const struct sockaddr *)peer, sizeof *peer) != 0) perror("connect");
  end->session = tarn_create();
  tarn_set_output_callback(end->session, send_datagram, end);
  tarn_set_recv_reliable_callback(end->session, on_message, end);
  tarn_set_error_callback(end->session, on_error, end);
  tarn_set_profile(end->session, TARN_PROFILE_BULK);
  /* No more under way than a socket keeps until somebody reads, some 90 datagrams on Linux. */
  tarn_set_option(end->session, TARN_OPTION_PEER_WINDOW, 64);
}

static FILE *make_up_a_file(void) {
  FILE *file = tmpfile();
  unsigned noise = 1;
  for (long i = 0; file != NULL && i < MADE_UP_BYTES; ++i) {
    noise = noise * 1103515245u + 12345u;
    putc((int)(noise >> 24), file);
  }
  if (file != NULL) rewind(file);
  return file;
}

static int is_all_acknowledged(void *session) {
  TarnStats stats;
  return tarn_get_stats(session, &stats, sizeof stats) == 0 && stats.queued_messages == 0 &&
         stats.outstanding_segments == 0;
}

/* The number of bytes if both files hold the same, else -1. */
static long compare(FILE *a, FILE *b) {
  long count = 0;
  int byte;
  rewind(a);
  rewind(b);
  while ((byte = getc(a)) == getc(b)) {
    if (byte == EOF) return count;
    ++count;
  }
  return -1;
}

int main(int argc, char **argv) {
  /* Static: the worker may still be at an end when main() returns. */
  static struct end sender, receiver;
  struct sockaddr_in sender_address, receiver_address;
  tarn_config_rtx_timeout(5); /* acknowledge every 5 ms: what is under way waits for that */
  tarn_init();
  sender.file = argc > 1 ? fopen(argv[1], "rb") : make_up_a_file();
  receiver.file = tmpfile();
  if (sender.file == NULL || receiver.file == NULL) return 1;
  sender.fd = bind_to_loopback(&sender_address);
  receiver.fd = bind_to_loopback(&receiver_address);
  open_session(&sender, &receiver_address);
  open_session(&receiver, &sender_address);

  tarn_set_writable_callback(sender.session, send_more, &sender);
  send_more(sender.session, &sender);
  while (!sender.failed && !receiver.failed &&
         !(sender.at_end && is_all_acknowledged(sender.session))) {
    struct pollfd ready[2] = {{sender.fd, POLLIN, 0}, {receiver.fd, POLLIN, 0}};
    poll(ready, 2, 100);
    take_datagrams(&sender);
    take_datagrams(&receiver);
  }

  tarn_destroy(sender.session);
  tarn_destroy(receiver.session);
  const long bytes = compare(sender.file, receiver.file);
  if (sender.failed || receiver.failed || bytes < 0) return 1;
  printf("%ld bytes arrived unchanged\n", bytes);
  return 0;
}
