/* Two ends of one conversation in one process: what one sends, the other is fed. */
#include <stdio.h>
#include <tarn/tarn.h>

static int deliver(char *data, int len, void *peer) { /* your sendto() and recvfrom() go here */
  tarn_input(peer, data, len);
  return 0;
}

static int on_message(char *data, int len, void *who) {
  printf("%s got \"%.*s\"\n", (const char *)who, len, data);
  return 0;
}

int main(void) {
  tarn_init();
  void *alice = tarn_create(), *bob = tarn_create();
  tarn_set_output_callback(alice, deliver, bob);
  tarn_set_output_callback(bob, deliver, alice);
  tarn_set_recv_reliable_callback(bob, on_message, "bob");
  tarn_send_reliable(alice, "hello", 5);
  tarn_wait_destroy(alice, 1000); /* until bob has acknowledged, for at most a second */
  tarn_destroy(bob);
  return 0;
}
