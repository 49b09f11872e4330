#include "tests/model/command.h"

#include <cstddef>

namespace {

struct OpText {
  const char* pszName;
  size_t uArgs;
};

OpText TextOf(Op op) {
  switch (op) {
    case Op::Intake:
      return {"Intake", 6};
    case Op::IntakeMany:
      return {"IntakeMany", 2};
    case Op::IntakeAgain:
      return {"IntakeAgain", 3};
    case Op::Take:
      return {"Take", 0};
    case Op::Settle:
      return {"Settle", 3};
    case Op::Save:
      return {"Save", 0};
    case Op::Load:
      return {"Load", 0};
    case Op::Sweep:
      return {"Sweep", 0};
    case Op::Advance:
      return {"Advance", 1};
    case Op::Configure:
      return {"Configure", 2};
    case Op::Spoil:
      return {"Spoil", 2};
    case Op::Fail:
      return {"Fail", 1};
    case Op::Restart:
      return {"Restart", 1};
  }
  return {"?", 0};
}

}  // namespace

std::ostream& operator<<(std::ostream& stream, const Command& command) {
  const OpText text = TextOf(command.op);
  stream << text.pszName << "(";
  for (size_t i = 0; i < text.uArgs; ++i) {
    stream << (i == 0 ? "" : ", ") << command.args[i];
  }
  return stream << ")";
}
