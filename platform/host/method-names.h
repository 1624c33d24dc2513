// The names of the host's own remote methods, as it serves them and its clients call them.
#ifndef PLATFORM_HOST_METHOD_NAMES_H
#define PLATFORM_HOST_METHOD_NAMES_H

namespace host {

// These change something.
constexpr const char *kExecuteCommandMethod = "Host::executeCommand"; // two texts, the command and its data: a text
constexpr const char *kSetStatusMethod = "Host::setStatus";           // a number: a number
constexpr const char *kApplyStatusMethod = "Host::applyStatus";       // a number: a number
constexpr const char *kReloadMethod = "Host::reload";                 // nothing: a number
constexpr const char *kReplaceRulesMethod = "Host::replaceRules";     // a text, see RuleReplacement: a text
constexpr const char *kRemoveRulesMethod = "Host::removeRules";       // likewise

// These only look, and take nothing but where it is said.
constexpr const char *kGetStatusMethod = "Host::getStatus"; // a number
constexpr const char *kStatusMethod = "Host::status";       // a text, see documents.h, as the following
constexpr const char *kVerifyMethod = "Host::verify";
constexpr const char *kRulesMethod = "Host::rules";
constexpr const char *kReportsMethod = "Host::reports";
constexpr const char *kRehearseRulesMethod = "Host::rehearseRules"; // what replaceRules would do, for administrators
constexpr const char *kRehearseRemovalMethod = "Host::rehearseRemoval"; // what removeRules would do, likewise
constexpr const char *kHistoryMethod = "Host::history";                 // how many entries: see history-document.h
constexpr const char *kDiffMethod = "Host::diff";                       // since when, a text (see History): likewise

} // namespace host

#endif
