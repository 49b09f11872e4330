// The configuration of qmhost: an INI file whose every section and key the host must know.
//
// | section       | key                | default              | meaning                                               |
// |---------------|--------------------|----------------------|-------------------------------------------------------|
// | [host]        | data_dir           | data                 | directory of the host's own files and its lock        |
// | [log]         | dir                | log                  | directory of the log files                            |
// |               | levels             | 3,4,6                | levels that are written, 1 to 6, comma-separated      |
// |               | max_file_size      | 10M                  | size at which a log file rotates, 4K to 1G            |
// |               | max_files          | 5                    | files a log channel keeps, 2 to 1000                  |
// | [storage]     | sync               | full                 | full: a write (file link, too) survives a power cut;  |
// |               |                    |                      | normal: a killed process                              |
// | [router]      | completion_threads | 1                    | threads that complete sends, 1 to 64; 1: in order |
// |               | reply_timeout_ms   | 30000                | how long a message may stay unanswered, 1 to 3600000  |
// | [ingress]     | socket             | data/qmhost.sock     | Unix socket for producers, at most 107 bytes          |
// |               | allowed_users      |                      | users beside root and the host's: names or numbers    |
// |               | max_frame          | 16M                  | longest message frame, 4K to 1G                       |
// |               | window             | 1024                 | unanswered messages a connection, 1 to 1048576        |
// |               | stall_timeout_ms   | 30000                | how long a frame may take from its first byte to its  |
// |               |                    |                      | last, and how long answers may stay unread, 100 to    |
// |               |                    |                      | 3600000                                               |
// |               | max_connections    | 1024                 | connections at once, 1 to 65536                       |
// |               | threads            | 2                    | threads that take messages, 1 to 256                  |
// | [link]        | driver             | file                 | where records go: file, http or nats                  |
// |               | path               | data/records.jsonl   | file driver: the file that is appended to             |
// |               | agent_id           |                      | UUID that destinations know the agent by; without it  |
// |               |                    |                      | one is made and kept in the data directory            |
// | [http]        | url                |                      | where batches are sent, http or https; needed         |
// |               | ca_file            |                      | the only authorities to trust; the system's           |
// |               | client_cert        |                      | certificate of this agent                             |
// |               | client_key         |                      | its key, unless it stands in client_cert              |
// |               | token_file         |                      | bearer token                                          |
// |               | proxy              |                      | URL, or environment; none                             |
// |               | timeout_ms         | 30000                | how long an answer may take, 100 to 600000            |
// |               | connect_timeout_ms | 10000                | how long a connection may take, 100 to 600000         |
// |               | retry_max_ms       | 60000                | longest pause between attempts, 100 to 3600000        |
// |               | batch_bytes        | 1M                   | text of the records of a batch, 1K to 256M            |
// |               | requests           | 2                    | requests at a time, 1 to 8                            |
// | [nats]        | servers            |                      | URLs, nats:// or tls://, comma-separated; needed      |
// |               | stream             | qmlogcache           | the stream that takes the records                     |
// |               | subject            | qmlogcache           | what every subject begins with                        |
// |               | ca_file            |                      | authorities to trust beside the system's              |
// |               | client_cert        |                      | certificate of this agent                             |
// |               | client_key         |                      | its key, unless it stands in client_cert              |
// |               | credentials_file   |                      | JWT and seed of a user                                |
// |               | token_file         |                      | token                                                 |
// |               | user               |                      | name of a user                                        |
// |               | password_file      |                      | the user's password                                   |
// |               | timeout_ms         | 10000                | how long an acknowledgement may take, 100 to 600000   |
// |               | connect_timeout_ms | 10000                | how long a connection may take, 100 to 600000         |
// |               | retry_max_ms       | 60000                | longest pause between attempts, 100 to 3600000        |
// |               | pending            | 256                  | records without acknowledgement at a time, 1 to 65536 |
// | [status]      | listen             |                      | loopback address and port of the status page and the  |
// |               |                    |                      | metrics; without it there are none                    |
// | [plugin NAME] | path               | lib/libqmlogcache.so | the plug-in's library                                 |
// |               | guid               | the log cache's      | the object to make                                    |
// |               | enabled            | yes                  | no: the section is checked and otherwise ignored      |
//
// Paths that are not absolute are taken from the installation's prefix, the parent of the directory of the executable.
// Sizes may end in K, M or G. At least one plug-in must be enabled. Other users reach the default socket only when they
// may pass the data directory, which is made with mode 0750: give the socket a directory of its own for them.
#ifndef QMLOGCACHE_HOST_CONFIG_HOST_CONFIG_H_
#define QMLOGCACHE_HOST_CONFIG_HOST_CONFIG_H_

#include <cstdint>
#include <string>
#include <vector>

#include "host/config/config_file.h"
#include "host/ingress/ingress_server.h"
#include "host/link/http/http_driver.h"
#include "host/link/nats/nats_driver.h"
#include "host/link/server_link.h"
#include "host/plugins/plugin_spec.h"
#include "host/router/router.h"
#include "host/status/status_options.h"

// A row of the table above, with its default as the file would say it.
struct HostConfigKey {
  std::string strSection;  // "plugin" for every [plugin NAME]
  std::string strKey;
  std::string strDefault;
};

// The drivers of the server link, each a value of [link] driver.
enum class LinkDriver { File, Http, Nats };
// In the order of the enumeration.
const std::vector<std::string>& LinkDriverNames();

struct HostConfig {
  std::string strDataDir;
  std::string strLogDir;
  unsigned int uLogLevels = 0;  // bit n for level n
  uint64_t u64LogMaxFileSize = 0;
  unsigned int uLogMaxFiles = 0;
  int iStorageSync = 2;  // as QmSetStorageSync takes it
  RouterOptions router;
  IngressOptions ingress;
  LinkDriver linkDriver = LinkDriver::File;
  std::string strAgentId;  // empty: the one in the data directory
  FileDriverOptions fileDriver;
  HttpDriverOptions httpDriver;  // without the agent's id
  NatsDriverOptions natsDriver;  // likewise
  StatusOptions status;
  std::vector<PluginSpec> vecPlugins;  // the enabled ones, in the order of the file
};

// Reads and checks a file. Returns all problems, in the order of their lines; none: config is complete and good.
std::vector<ConfigProblem> LoadHostConfig(const std::string& strFile, const std::string& strPrefix, HostConfig& config);

// Every key there is, in the order of the table above.
std::vector<HostConfigKey> HostConfigKeys();

// "FILE:LINE: text", without the line for a problem that concerns none.
std::string FormatProblem(const std::string& strFile, const ConfigProblem& problem);

#endif  // QMLOGCACHE_HOST_CONFIG_HOST_CONFIG_H_
