/* Asks a node through the agent: example NODE TEXT */
#include <lumo.h>
#include <stdio.h>

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  lumo_connection* agent = NULL;
  lumo_status status = lumo_open(NULL, 5000, &agent);
  if (status != LUMO_OK) {
    fprintf(stderr, "%s\n", lumo_status_text(status));
    return 1;
  }
  lumo_answer* answer = NULL;
  status = lumo_ask_text(agent, argv[1], argv[2], 5000, &answer);
  if (status == LUMO_OK)
    printf("%s\n", lumo_answer_string(answer, 3, NULL));
  else
    fprintf(stderr, "%s\n", answer ? lumo_answer_words(answer) : lumo_status_text(status));
  lumo_answer_free(answer);
  lumo_close(agent);
  return status != LUMO_OK;
}
