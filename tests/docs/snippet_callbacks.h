/* Callbacks that one piece defines and others name. */
int to_peer(char* data, int len, void* user);
int on_message(char* data, int len, void* user);
int on_error(TarnError code, void* user);
void send_more(void* session, void* user);
