/* A reader that cannot keep up pauses its session: the sender is held up, what waits at either end
 * stays within bounds, and nothing is lost. Both ends are on loopback, in one loop. */
#define _POSIX_C_SOURCE 200809L
#include <arpa/inet.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <tarn/control.h>

enum { MESSAGES = 3000, MESSAGE_SIZE = 1000, INBOX = 32, EACH_TURN = 2, TURNS = 20000 };

/* At most so much waits at an end, as TARN_PROFILE_BALANCED has it. */
enum { MOST_SEGMENTS = 256, MOST_QUEUED = 1 << 20 };

static int sockets[2]; /* of the writer and the reader */

static struct {
  void *session;
  int next; /* number of the next message */
} writer;

static struct {
  void *session;
  int inbox[INBOX], waiting; /* numbers of messages that nobody has looked at */
  int next, disordered;
} reader;

static void write_more(void *session, void *user) {
  (void)user;
  for (; writer.next < MESSAGES; ++writer.next) {
    char message[MESSAGE_SIZE] = {0};
    memcpy(message, &writer.next, sizeof writer.next);
    if (tarn_try_send_reliable(session, message, sizeof message) != 0) return;
  }
}

/* Pausing inside the callback holds for the very next message. */
static int on_message(char *data, int len, void *user) {
  (void)len, (void)user;
  memcpy(&reader.inbox[reader.waiting++], data, sizeof(int));
  if (reader.waiting == INBOX) tarn_pause_receive(reader.session, 1);
  return 0;
}

/* Reads a few messages of the inbox, then lets more come. */
static void read_slowly(void) {
  int count = reader.waiting < EACH_TURN ? reader.waiting : EACH_TURN;
  for (int i = 0; i < count; ++i) {
    if (reader.inbox[i] != reader.next++) reader.disordered = 1;
  }
  reader.waiting -= count;
  memmove(reader.inbox, reader.inbox + count, (size_t)reader.waiting * sizeof(int));
  if (reader.waiting == 0) tarn_pause_receive(reader.session, 0); /* may call on_message() */
}

/* Runs on this thread, and on the library's worker for what is sent again. */
static int send_datagram(char *data, int len, void *fd) {
  (void)send(*(int *)fd, data, (size_t)len, 0); /* what is refused is as good as lost */
  return 0;
}

static void take_datagrams(int fd, void *session) {
  char datagram[65536];
  ssize_t size;
  while ((size = recv(fd, datagram, sizeof datagram, MSG_DONTWAIT)) > 0) {
    tarn_input(session, datagram, (int)size);
  }
}

static struct sockaddr_in bind_to_loopback(int fd) {
  struct sockaddr_in address = {.sin_family = AF_INET};
  socklen_t size = sizeof address;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(fd, (struct sockaddr *)&address, size) != 0) perror("bind");
  getsockname(fd, (struct sockaddr *)&address, &size);
  return address;
}

static void open_sockets(void) {
  struct sockaddr_in addresses[2];
  for (int i = 0; i < 2; ++i) sockets[i] = socket(AF_INET, SOCK_DGRAM, 0);
  for (int i = 0; i < 2; ++i) addresses[i] = bind_to_loopback(sockets[i]);
  for (int i = 0; i < 2; ++i) {
    const struct sockaddr_in *peer = &addresses[1 - i];
    if (connect(sockets[i], (const struct sockaddr *)peer, sizeof *peer) != 0) perror("connect");
  }
}

static void *open_session(int *fd) {
  void *session = tarn_create();
  tarn_set_output_callback(session, send_datagram, fd);
  tarn_set_profile(session, TARN_PROFILE_BALANCED);
  return session;
}

static TarnStats stats_of(void *session) {
  TarnStats stats = {0};
  tarn_get_stats(session, &stats, sizeof stats);
  return stats;
}

int main(void) {
  unsigned most_kept = 0, most_queued = 0;
  tarn_config_rtx_timeout(5); /* acknowledge every 5 ms: what is under way waits for that */
  tarn_init();
  open_sockets();
  writer.session = open_session(&sockets[0]);
  reader.session = open_session(&sockets[1]);
  tarn_set_recv_reliable_callback(reader.session, on_message, NULL);
  tarn_set_writable_callback(writer.session, write_more, NULL);

  write_more(writer.session, NULL);
  for (int i = 0; i < TURNS && reader.next < MESSAGES; ++i) {
    poll(NULL, 0, 1); /* the work that a message makes */
    take_datagrams(sockets[0], writer.session);
    take_datagrams(sockets[1], reader.session);
    read_slowly();
    const unsigned kept = stats_of(reader.session).buffered_segments;
    const unsigned queued = stats_of(writer.session).queued_bytes;
    most_kept = kept > most_kept ? kept : most_kept;
    most_queued = queued > most_queued ? queued : most_queued;
  }
  tarn_destroy(writer.session);
  tarn_destroy(reader.session);

  printf("%d of %d messages; kept at most %u segments here and %u bytes there\n", reader.next,
         MESSAGES, most_kept, most_queued);
  if (reader.next < MESSAGES || reader.disordered) return 1;
  if (most_kept == 0 || most_kept > MOST_SEGMENTS || most_queued > MOST_QUEUED) return 1;
  puts("nothing lost");
  return 0;
}
