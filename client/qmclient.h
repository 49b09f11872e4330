/*
 * libqmclient: hands records to the plug-in host, from a program.
 *
 * A client keeps a window of records on their way to the host over its Unix socket and tells of each what became of it.
 * It connects by itself, connects again when the host was away, and sends again what had no answer. So a record arrives
 * at least once: one whose answer was lost with a connection may arrive twice. "Accepted" means that the record is in
 * the host's care, on disk with its default configuration; a record that the client still holds when the program ends
 * is lost.
 *
 *   struct qm_client_options options = QM_CLIENT_OPTIONS_INIT;
 *   struct qm_client_record record = QM_CLIENT_RECORD_INIT;
 *   qm_client *client;
 *   options.socket = "/run/qmlogcache/qmhost.sock";
 *   options.sender = "my daemon";
 *   qm_client_open(&options, &client);
 *   record.data = "hello";
 *   record.length = 5;
 *   qm_client_send(client, &record, 1000);
 *   qm_client_close(client, 5000);
 *
 * The client has no threads: it works only while one of its functions is called. A program with an event loop waits for
 * qm_client_fd to become readable and calls qm_client_process(client, 0) then; any other calls qm_client_process, or
 * just the next qm_client_send, now and then, or qm_client_flush when it matters. A program that calls none of them for
 * longer than the host's stall time while answers wait may be disconnected, which costs a resending.
 *
 * Threads: a client is used by one thread at a time; different clients are independent. A call that comes while another
 * call on the same client is under way, from another thread or from the callback, returns QM_CLIENT_E_BUSY.
 * fork: in the child qm_client_fd returns -1, qm_client_pending 0 and every other function that takes the client
 * QM_CLIENT_E_FORKED; qm_client_close frees the child's copy without touching the parent's connection. Descriptors are
 * closed by exec. Signals: SIGPIPE is never raised, no handler or mask is touched, and a wait goes on after an
 * interrupted system call.
 * Time-outs: milliseconds; 0 does not wait, a negative one waits without end. No host, dead or hostile, holds a call for
 * longer.
 */
#ifndef QMCLIENT_H
#define QMCLIENT_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define QM_CLIENT_API __attribute__((visibility("default")))
#else
#define QM_CLIENT_API
#endif

/* Versions with the same major number work with each other; the shared library's name holds it. */
#define QM_CLIENT_VERSION_MAJOR 0
#define QM_CLIENT_VERSION_MINOR 1

/* What functions return: 0, or one of these. */
enum qm_client_error {
  QM_CLIENT_OK = 0,
  QM_CLIENT_E_ARGUMENT =
      -1,                 /* a null pointer, a value out of range, a name longer than 63 bytes, no such socket path */
  QM_CLIENT_E_EMPTY = -2, /* a record without bytes */
  QM_CLIENT_E_ZERO_BYTE = -3, /* a record with a zero byte, where the component would cut it */
  QM_CLIENT_E_TOO_LONG = -4,  /* a record longer than the host takes */
  QM_CLIENT_E_TIMEOUT = -5,   /* the time is over */
  QM_CLIENT_E_MEMORY = -6,    /* no memory */
  QM_CLIENT_E_SYSTEM = -7,    /* no descriptor to be had */
  QM_CLIENT_E_BUSY = -8,      /* another call on this client is under way */
  QM_CLIENT_E_FORKED = -9     /* the client belongs to the parent process */
};

/* What became of a record. */
enum qm_client_outcome {
  QM_CLIENT_ACCEPTED = 0,
  QM_CLIENT_REFUSED = 1,   /* not taken; the status says why */
  QM_CLIENT_OVERLONG = 2,  /* not sent: longer than the host takes, which was not known when it was handed in */
  QM_CLIENT_NO_ANSWER = 3, /* it may have been taken or not: no answer, or one that leaves it open */
  QM_CLIENT_NOT_SENT = 4
};

enum qm_client_kind { QM_CLIENT_EDR = 1, QM_CLIENT_EPP = 2, QM_CLIENT_TAG = 3 };
enum qm_client_priority { QM_CLIENT_LOW = 0, QM_CLIENT_NORMAL = 1, QM_CLIENT_HIGH = 2, QM_CLIENT_REAL = 3 };

/* Flags of a record. */
#define QM_CLIENT_PUBLIC 1u
#define QM_CLIENT_NO_SAVE 2u /* never written to disk */

typedef struct qm_client qm_client;

/*
 * Called once for each record that qm_client_send took, in the order in which the outcomes are known, from within
 * qm_client_send, qm_client_process, qm_client_flush and qm_client_close, on the thread that called them. cookie is the
 * record's own; status is the host's answer to its last sending (qm_client_status_text), 0 where there was none. It must
 * not throw or jump.
 */
typedef void (*qm_client_result_fn)(void* user, uint64_t cookie, enum qm_client_outcome outcome, uint32_t status);

/* Called as above when the connection is made (connected 1) and each time it fails or is lost (0, with the reason). */
typedef void (*qm_client_connection_fn)(void* user, int connected, const char* reason);

/* Begin with QM_CLIENT_OPTIONS_INIT. Everything is copied. */
struct qm_client_options {
  const char* socket; /* path of the host's socket; required */
  const char* sender; /* under which the records are kept: a GUID, or a name that becomes one; required */
  size_t max_records; /* that the client holds at once, 1 to 65536 */
  size_t max_bytes;   /* of their bytes together; one record is always taken */
  int32_t retry_ms; /* how long a record is sent again, and a host waited for from when it is found away; negative: for
                         ever */
  qm_client_result_fn on_result;         /* may be null */
  qm_client_connection_fn on_connection; /* may be null */
  void* user;                            /* for the callbacks */
};
#define QM_CLIENT_OPTIONS_INIT \
  { NULL, NULL, 1024, 32u << 20, -1, NULL, NULL, NULL }

/* Begin with QM_CLIENT_RECORD_INIT. Everything is copied. */
struct qm_client_record {
  const void* data;    /* text without zero bytes */
  size_t length;       /* in bytes, at least 1 */
  int kind;            /* enum qm_client_kind */
  int priority;        /* enum qm_client_priority */
  unsigned int flags;  /* QM_CLIENT_PUBLIC, QM_CLIENT_NO_SAVE */
  const char* product; /* at most 63 bytes; null: none */
  const char* combo;   /* likewise */
  uint64_t cookie;     /* comes back with the outcome */
};
#define QM_CLIENT_RECORD_INIT \
  { NULL, 0, QM_CLIENT_EDR, QM_CLIENT_NORMAL, 0, NULL, NULL, 0 }

/* Makes a client, which connects with the next call. On failure *client is null. */
QM_CLIENT_API int qm_client_open(const struct qm_client_options* options, qm_client** client);

/*
 * Hands a record in. It is copied, and sent as soon as the connection and the host's window allow. When the client holds
 * as much as it may, room is waited for until the time-out; QM_CLIENT_E_TIMEOUT then, and the record was not taken.
 * Records are sent in the order of these calls; those that are sent again may come later.
 */
QM_CLIENT_API int qm_client_send(qm_client* client, const struct qm_client_record* record, int timeout_ms);

/*
 * Sends, receives and reports what can be; when no outcome is there yet, waits for one until the time-out. Returns the
 * number of outcomes reported, 0 when there was none, or an error. A client that holds nothing does not wait.
 */
QM_CLIENT_API int qm_client_process(qm_client* client, int timeout_ms);

/* Waits until every record has its outcome; QM_CLIENT_E_TIMEOUT when the time is over before that. */
QM_CLIENT_API int qm_client_flush(qm_client* client, int timeout_ms);

/*
 * A descriptor that is readable when qm_client_process has something to do; the same for the life of the client. It may
 * be polled and nothing else. -1 for a null client, and in a child process.
 */
QM_CLIENT_API int qm_client_fd(const qm_client* client);

/* Records that have no outcome yet; 0 for a null client, and in a child process. May be called from the callbacks. */
QM_CLIENT_API size_t qm_client_pending(const qm_client* client);

/*
 * qm_client_flush, then reports what is left as QM_CLIENT_NO_ANSWER, QM_CLIENT_NOT_SENT or the last refusal, and frees
 * the client, whatever the result: that of the flush. QM_CLIENT_E_BUSY alone leaves it alive. Null is allowed.
 */
QM_CLIENT_API int qm_client_close(qm_client* client, int timeout_ms);

/* Texts for people, in English; never null, never to be freed. */
QM_CLIENT_API const char* qm_client_error_text(int error);
QM_CLIENT_API const char* qm_client_status_text(uint32_t status);

/* The library's version, "0.1". */
QM_CLIENT_API const char* qm_client_version(void);

#ifdef __cplusplus
}
#endif

#endif /* QMCLIENT_H */
