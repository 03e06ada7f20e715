/* What the pieces of C in the documents take for granted: the application around them. */
#include <errno.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <tarn/control.h>
#include <tarn/io.h>

enum inbox_state { INBOX_HAS_ROOM, INBOX_FULL };

struct app {
  void* session;
};

extern struct app app;
extern void* session;
extern void* io;
extern int fd;
extern char datagram[65536];
extern int n;
extern struct sockaddr_storage* sender;
extern char* text;

int has_next(struct app* app);
const char* next_data(struct app* app);
size_t next_size(struct app* app);
void drop_next(struct app* app);
void give_up(struct app* app, int result);
int put_into_inbox(struct app* app, char* data, int len);
int is_inbox_empty(struct app* app);
int is_over(struct app* app);
void* find_session(unsigned int conv, struct sockaddr_storage* sender);
void* add_session(unsigned int conv, struct sockaddr_storage* sender);
