#include "host/link/nats/nats_stream.h"

#include <nats/nats.h>

#include <algorithm>

#include "host/link/nats/nats_names.h"

std::string WhyStreamIsOfNoUse(const std::string& strStream, const jsStreamInfo& info,
                               const std::vector<std::string>& vecSubjects) {
  if (info.Config == nullptr) {
    return "the server did not tell about the stream " + strStream;
  }
  const jsStreamConfig& config = *info.Config;
  if (info.Cluster != nullptr && (info.Cluster->Leader == nullptr || *info.Cluster->Leader == '\0')) {
    return "the stream " + strStream + " has no leader";
  }
  if (config.NoAck) {
    return "the stream " + strStream + " acknowledges nothing (no_ack): no record would ever be known to be delivered";
  }
  for (const std::string& strSubject : vecSubjects) {
    if (std::none_of(config.Subjects, config.Subjects + config.SubjectsLen,
                     [&](const char* pszPattern) { return SubjectMatches(pszPattern, strSubject); })) {
      return ("the stream " + strStream).append(" does not take the subject ").append(strSubject);
    }
  }
  return {};
}

std::string DescribeLosses(const std::string& strStream, const jsStreamInfo& info) {
  const jsStreamConfig& config = *info.Config;
  std::string strLosses;
  const auto Add = [&](bool bLoses, const char* pszWhat) {
    if (bLoses) {
      strLosses.append(strLosses.empty() ? "the stream " + strStream + " " : "; it ").append(pszWhat);
    }
  };
  Add(config.Discard == js_DiscardOld && (config.MaxMsgs > 0 || config.MaxBytes > 0),
      "drops its oldest records at its limits (discard old)");
  Add(config.MaxMsgsPerSubject > 0 && !(config.Discard == js_DiscardNew && config.DiscardNewPerSubject),
      "drops the oldest records of a subject (max_msgs_per_subject)");
  Add(config.Retention == js_InterestPolicy, "drops what no consumer waits for (retention interest)");
  Add(config.Storage == js_MemoryStorage, "keeps its records in memory (storage memory)");
  return strLosses;
}
