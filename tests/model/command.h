// The commands of the model test: plain values, so that a sequence can be generated, shrunk, printed and kept.
//
// A printed sequence is the C++ text that makes it again: what a failing run prints can be pasted among the kept
// sequences as it stands.
#ifndef QMLOGCACHE_TESTS_MODEL_COMMAND_H_
#define QMLOGCACHE_TESTS_MODEL_COMMAND_H_

#include <array>
#include <ostream>
#include <vector>

enum class Op {
  Intake,
  IntakeMany,
  IntakeAgain,
  Take,
  Settle,
  Save,
  Load,
  Sweep,
  Advance,
  Configure,
  Spoil,
  Fail,
  Restart
};

// What is in a record; see MakeContents.
enum Payload : int {
  kText,
  kQuotes,
  kAllBytes,  // 1 to 255
  kEmpty,
  kKibibytes,
  kZeroByte,         // only base64 can store it
  kStatement,        // would be run, were it not quoted
  kZeroByteProduct,  // no statement can store it
  kPayloads
};

// Which record a result is for; the command's number chooses among them.
enum Pick : int {
  kTaken,
  kQueued,
  kEver,  // any id that was ever used, also a settled one
  kUnknown,
  kPicks
};

enum Outcome : int { kDelivered, kRejected, kRetry, kOutcomes };

// Settings; the values are what the configuration file says.
enum Setting : int {
  kFlow,
  kCountLimit,
  kLocalCountLimit,
  kCover,
  kFileSize,
  kTotalSize,
  kFreeSpace,  // bytes above the limit, and not a setting of the file
  kSettings
};
inline constexpr int kNoLimit = 1 << 30;

// What happens to a sender's file while nobody has it open.
enum Spoiling : int {
  kGarbage,
  kCutToByte,
  kCutToHeader,  // 100 bytes
  kCutToPage,
  kCutToNothing,
  kDamageRows,
  kRemove,
  kDropTable,
  kSpoilings
};

// What fails during the next command that is not about files or settings.
enum Failure : int {
  kNothing,
  kPlainInserts,  // inserts that carry the payload as text
  kInserts,
  kDeletes,
  kSelects,
  kCreation,  // CREATE TABLE
  kOpening,   // with an input/output error, which is no evidence of damage
  kQueueing,
  kFailures
};

inline constexpr int kSenders = 3;

struct Command {
  Op op = Op::Take;
  std::array<int, 6> args{};

  friend bool operator==(const Command&, const Command&) = default;
};

using Commands = std::vector<Command>;

inline Command Intake(int iSender, int iPriv, int iMsgType, int iPayload, int iSaveStatus, int bForceSave) {
  return {Op::Intake, {iSender, iPriv, iMsgType, iPayload, iSaveStatus, bForceSave}};
}
// A record as most are.
inline Command Intake(int iSender, int iPriv = 0) {
  return Intake(iSender, iPriv, 1, kText, 1, 0);
}
inline Command IntakeMany(int iCount, int iSender) {
  return {Op::IntakeMany, {iCount, iSender}};
}
// The uPick-th id ever used comes again, with other contents.
inline Command IntakeAgain(int iPick, int iSender, int iPayload) {
  return {Op::IntakeAgain, {iPick, iSender, iPayload}};
}
// A marked record is deleted at once, as the work thread does.
inline Command Take() {
  return {Op::Take, {}};
}
inline Command Settle(int iPick, int iNumber, int iOutcome) {
  return {Op::Settle, {iPick, iNumber, iOutcome}};
}
inline Command Save() {
  return {Op::Save, {}};
}
inline Command Load() {
  return {Op::Load, {}};
}
inline Command Sweep() {
  return {Op::Sweep, {}};
}
inline Command Advance(int iSeconds) {
  return {Op::Advance, {iSeconds}};
}
inline Command Configure(int iSetting, int iValue) {
  return {Op::Configure, {iSetting, iValue}};
}
inline Command Spoil(int iSender, int iSpoiling) {
  return {Op::Spoil, {iSender, iSpoiling}};
}
inline Command Fail(int iFailure) {
  return {Op::Fail, {iFailure}};
}
// The store goes, saved before or not, and a new one opens the same directory. Its ids are larger.
inline Command Restart(int bSave) {
  return {Op::Restart, {bSave}};
}

std::ostream& operator<<(std::ostream& stream, const Command& command);

#endif  // QMLOGCACHE_TESTS_MODEL_COMMAND_H_
