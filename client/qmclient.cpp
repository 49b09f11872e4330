// The C interface: checks what comes from outside, lets one caller in, and lets no exception out.
#include "client/qmclient.h"

#include <sys/un.h>

#include <cstring>
#include <exception>
#include <iterator>
#include <memory>
#include <new>

#include "client/client.h"
#include "client/core/status_words.h"

namespace {

constexpr size_t kMostRecords = 65536;

bool IsUsable(const qm_client_options& options) {
  return options.socket != nullptr && options.socket[0] != '\0' &&
         std::strlen(options.socket) < sizeof(sockaddr_un::sun_path) && options.sender != nullptr &&
         options.sender[0] != '\0' && options.max_records > 0 && options.max_records <= kMostRecords;
}

// Runs fnCall as the one caller of the client.
template <typename Function>
int AsCaller(qm_client* pClient, Function fnCall) noexcept {
  if (pClient == nullptr) {
    return QM_CLIENT_E_ARGUMENT;
  }
  const int iEntered = pClient->Enter();
  if (iEntered != QM_CLIENT_OK) {
    return iEntered;
  }
  int iResult = QM_CLIENT_E_MEMORY;
  try {
    iResult = fnCall();
  } catch (const std::exception&) {
    // Nothing but memory can fail so; the client says what it does about it.
  }
  pClient->Leave();
  return iResult;
}

}  // namespace

int qm_client_open(const qm_client_options* options, qm_client** client) {
  if (client == nullptr) {
    return QM_CLIENT_E_ARGUMENT;
  }
  *client = nullptr;
  if (options == nullptr || !IsUsable(*options)) {
    return QM_CLIENT_E_ARGUMENT;
  }
  try {
    auto pClient = std::make_unique<qm_client>(*options);
    if (!pClient->Open()) {
      return QM_CLIENT_E_SYSTEM;
    }
    pClient->Arm();
    *client = pClient.release();
    return QM_CLIENT_OK;
  } catch (const std::exception&) {
    return QM_CLIENT_E_MEMORY;
  }
}

int qm_client_send(qm_client* client, const qm_client_record* record, int timeout_ms) {
  return record == nullptr ? QM_CLIENT_E_ARGUMENT : AsCaller(client, [=] { return client->Send(*record, timeout_ms); });
}

int qm_client_process(qm_client* client, int timeout_ms) {
  return AsCaller(client, [=] { return client->Process(timeout_ms); });
}

int qm_client_flush(qm_client* client, int timeout_ms) {
  return AsCaller(client, [=] { return client->Flush(timeout_ms); });
}

int qm_client_fd(const qm_client* client) {
  return client == nullptr || client->IsForked() ? -1 : client->Descriptor();
}

size_t qm_client_pending(const qm_client* client) {
  return client == nullptr || client->IsForked() ? 0 : client->Pending();
}

int qm_client_close(qm_client* client, int timeout_ms) {
  if (client == nullptr) {
    return QM_CLIENT_OK;
  }
  int iResult = QM_CLIENT_E_FORKED;
  if (!client->IsForked()) {
    const int iEntered = client->Enter();
    if (iEntered != QM_CLIENT_OK) {
      return iEntered;
    }
    try {
      iResult = client->Flush(timeout_ms);
    } catch (const std::exception&) {
      iResult = QM_CLIENT_E_MEMORY;
    }
    client->GiveUp();  // which needs no memory
  }
  delete client;
  return iResult;
}

const char* qm_client_error_text(int error) {
  static constexpr const char* kTexts[] = {"no error",
                                           "wrong argument",
                                           "the record is empty",
                                           "the record holds a zero byte, where the component would cut it",
                                           "the record is longer than the host takes",
                                           "the time is over",
                                           "out of memory",
                                           "no descriptor to be had",
                                           "another call on this client is under way",
                                           "the client belongs to the parent process"};
  return error > 0 || error <= -static_cast<int>(std::size(kTexts)) ? "unknown error" : kTexts[-error];
}

const char* qm_client_status_text(uint32_t status) {
  if (status == 0) {
    return "accepted";
  }
  const char* pszWords = StatusWords(status);
  return pszWords == nullptr ? "refused for a reason this library does not know" : pszWords;
}

const char* qm_client_version(void) {
  return QMCLIENT_VERSION;
}
