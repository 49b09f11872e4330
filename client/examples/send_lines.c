/* Hands each line of standard input to the host: cc send_lines.c -lqmclient. Usage: send_lines SOCKET SENDER [SECONDS]
 * SECONDS: how long it waits for room, and for the last answers; 60 unless told. */
#define _POSIX_C_SOURCE 200809L /* for getline */
#include <qmclient.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/types.h>

static const char* outcome_text(enum qm_client_outcome outcome) {
  switch (outcome) {
    case QM_CLIENT_ACCEPTED:
      return "accepted";
    case QM_CLIENT_REFUSED:
      return "refused";
    case QM_CLIENT_OVERLONG:
      return "longer than the host takes";
    case QM_CLIENT_NO_ANSWER:
      return "no answer, it may have been taken or not";
    case QM_CLIENT_NOT_SENT:
      break;
  }
  return "not sent";
}

static void on_result(void* user, uint64_t cookie, enum qm_client_outcome outcome, uint32_t status) {
  if (outcome != QM_CLIENT_ACCEPTED) {
    ++*(int*)user;
    fprintf(stderr, "line %lu was not accepted: %s\n", (unsigned long)cookie,
            status != 0 ? qm_client_status_text(status) : outcome_text(outcome));
  }
}

/* A line that cannot be sent holds up no other. */
static int is_about_the_line(int error) {
  return error == QM_CLIENT_E_ZERO_BYTE || error == QM_CLIENT_E_TOO_LONG;
}

int main(int argc, char** argv) {
  struct qm_client_options options = QM_CLIENT_OPTIONS_INIT;
  struct qm_client_record record = QM_CLIENT_RECORD_INIT;
  char* line = NULL;
  size_t size = 0;
  ssize_t length;
  qm_client* client;
  int failed = 0, error, closed;
  const int timeout_ms = (argc > 3 ? atoi(argv[3]) : 60) * 1000;

  options.socket = argc > 1 ? argv[1] : NULL;
  options.sender = argc > 2 ? argv[2] : "send_lines";
  options.on_result = on_result;
  options.user = &failed;
  error = qm_client_open(&options, &client);
  while (error == QM_CLIENT_OK && (length = getline(&line, &size, stdin)) > 0) {
    record.data = line;
    record.length = (size_t)length - (line[length - 1] == '\n');
    ++record.cookie;
    error = record.length == 0 ? QM_CLIENT_OK : qm_client_send(client, &record, timeout_ms);
    if (is_about_the_line(error)) {
      ++failed;
      fprintf(stderr, "line %lu was not sent: %s\n", (unsigned long)record.cookie, qm_client_error_text(error));
      error = QM_CLIENT_OK;
    }
  }
  if (error != QM_CLIENT_OK) {
    fprintf(stderr, "line %lu: %s\n", (unsigned long)record.cookie, qm_client_error_text(error));
  } else if (ferror(stdin)) {
    perror("standard input");
    ++failed;
  }
  closed = qm_client_close(client, timeout_ms);
  free(line);
  return closed != QM_CLIENT_OK || error != QM_CLIENT_OK || failed > 0;
}
