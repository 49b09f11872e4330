// Which message a record becomes.
#ifndef QMLOGCACHE_CLIENT_CORE_MESSAGE_BUILDER_H_
#define QMLOGCACHE_CLIENT_CORE_MESSAGE_BUILDER_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "host/protocol/combo_payload.h"

enum class RecordKind { Edr = 1, Epp = 2, Tag = 3 };
enum class RecordPriority { Low = 0, Normal = 1, High = 2, Real = 3 };

struct MessageOptions {
  RecordKind kind = RecordKind::Edr;
  RecordPriority priority = RecordPriority::Normal;
  bool bPublic = false;
  bool bNoSave = false;
  std::string strProduct;
  std::string strCombo;
};

// Records of kind EDR or EPP without product, combo and the no-save mark are priority messages, whose payload is the
// record; all others are combo messages.
class CMessageBuilder {
 public:
  // False with a reason when a name does not fit.
  [[nodiscard]] bool Configure(const MessageOptions& options, std::string& strError);

  uint32_t Type() const { return m_uType; }
  // Bytes of a payload before the record.
  size_t Overhead() const { return m_bCombo ? kComboHeaderSize : 0; }
  // Replaces strPayload.
  void Build(std::string_view svRecord, std::string& strPayload) const;

 private:
  bool m_bCombo = false;
  uint32_t m_uType = 0;
  ComboHeader m_header{};
};

#endif  // QMLOGCACHE_CLIENT_CORE_MESSAGE_BUILDER_H_
