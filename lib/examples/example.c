/* Sends texts to a node through the agent, one after the other, and prints the rows. */
#include <lumo.h>
#include <stdio.h>

/* 0 when the node has done it. */
static int ask(lumo_connection* agent, const char* node, const char* text) {
  lumo_answer* answer;
  const lumo_status status = lumo_ask_text(agent, node, text, 5000, &answer);
  if (status == LUMO_OK)
    printf("%s\n", lumo_answer_string(answer, LUMO_ROWS, NULL));
  else if (answer) /* it was sent: refused, failed, or nobody knows */
    fprintf(stderr, "example: %s\n", lumo_answer_words(answer));
  else
    fprintf(stderr, "example: %s\n", lumo_status_text(status));
  lumo_answer_free(answer);
  return status != LUMO_OK;
}

int main(int argc, char** argv) {
  lumo_connection* agent;
  lumo_status status;
  int failures = 0;
  if (argc < 3) {
    fprintf(stderr, "usage: example NODE TEXT...\n");
    return 2;
  }
  status = lumo_open(NULL, 5000, &agent);
  if (status != LUMO_OK) {
    fprintf(stderr, "example: %s\n", lumo_status_text(status));
    return 1;
  }
  for (int i = 2; i < argc; ++i) failures += ask(agent, argv[1], argv[i]);
  lumo_close(agent);
  return failures > 0;
}
