/* Hands each line of standard input to the host: cc send_lines.c -lqmclient. Usage: send_lines SOCKET SENDER */
#include <qmclient.h>
#include <stdio.h>
#include <string.h>

static void on_result(void* user, uint64_t cookie, enum qm_client_outcome outcome, uint32_t status) {
  if (outcome != QM_CLIENT_ACCEPTED) {
    ++*(int*)user;
    fprintf(stderr, "line %lu was not accepted: %s\n", (unsigned long)cookie, qm_client_status_text(status));
  }
}

int main(int argc, char** argv) {
  struct qm_client_options options = QM_CLIENT_OPTIONS_INIT;
  struct qm_client_record record = QM_CLIENT_RECORD_INIT;
  static char line[65536];
  qm_client* client;
  int failed = 0, error;

  options.socket = argc > 1 ? argv[1] : NULL;
  options.sender = argc > 2 ? argv[2] : "send_lines";
  options.on_result = on_result;
  options.user = &failed;
  error = qm_client_open(&options, &client);
  while (error == QM_CLIENT_OK && fgets(line, sizeof(line), stdin) != NULL) {
    record.data = line;
    record.length = strcspn(line, "\n");
    ++record.cookie;
    error = record.length == 0 ? QM_CLIENT_OK : qm_client_send(client, &record, 60000);
  }
  if (error != QM_CLIENT_OK) {
    fprintf(stderr, "%s\n", qm_client_error_text(error));
  }
  return qm_client_close(client, 60000) != QM_CLIENT_OK || error != QM_CLIENT_OK || failed > 0;
}
