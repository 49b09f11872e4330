// The nats driver: each record leaves as one message to a JetStream stream, and the stream's acknowledgement is its
// delivery. What the stream must be like is told in docs/links.md.
//
// Files of this folder: nats_driver (life), nats_worker (the thread and its states), nats_session (libnats: one
// connection), nats_stream (what the stream must be like), nats_answer (what an answer means), nats_names (subjects),
// nats_servers, socket_watch.
#ifndef QMLOGCACHE_HOST_LINK_NATS_NATS_DRIVER_H_
#define QMLOGCACHE_HOST_LINK_NATS_NATS_DRIVER_H_

#include <cstdint>
#include <memory>
#include <string>

#include "host/link/link_driver.h"

struct NatsDriverOptions {
  std::string strServers;                  // checked with ReadNatsServers
  std::string strStream;                   // checked with CheckStreamName
  std::string strSubject;                  // the prefix; checked with CheckSubjectPrefix
  std::string strCaFile;                   // PEM; trusted beside the system's authorities
  std::string strClientCert;               // PEM; empty for none
  std::string strClientKey;                // PEM without a passphrase; empty: it stands in the certificate's file
  std::string strCredentialsFile;          // a user's JWT and seed; empty for none
  std::string strTokenFile;                // empty for none
  std::string strUser;                     // empty for none
  std::string strPasswordFile;             // of that user
  std::string strAgentId;                  // UUID, the same for ever: part of every record's id and subject
  unsigned int uTimeoutMs = 10000;         // how long an acknowledgement may take
  unsigned int uConnectTimeoutMs = 10000;  // connection, TLS handshake and the server's first answer; one server
  unsigned int uLongestBackOffMs = 60000;  // the longest pause between two attempts
  unsigned int uPending = 256;             // records that wait for their acknowledgement at the same time
  uint64_t u64Seed = 0;                    // of the pauses and the order of the servers; 0: from the system
};

// Stop gives the records that it finds three seconds to be delivered, while the link is up. It returns a second later
// at the latest, even if libnats hangs in a call: the thread is then left behind and calls nobody any more.
std::unique_ptr<ILinkDriver> CreateNatsDriver(const NatsDriverOptions& options);

#endif  // QMLOGCACHE_HOST_LINK_NATS_NATS_DRIVER_H_
