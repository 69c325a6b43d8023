#include <qor/qor_exception.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "internal/message.h"

namespace {

const char kUnknownFile[] = "<unknown>";

// Which texts each exception owns. The record of an exception is fixed at
// three fields, so ownership is kept here: buffers composed by the library's
// raising sites wait in `pending` until an exception adopts them, and every
// buffer an exception owns (those and the texts of what()) is released with
// it. Never destroyed, so exceptions that outlive static destruction are safe.
struct OwnedTexts {
  std::mutex mutex;
  std::unordered_set<const char*> pending;
  std::unordered_map<const qorException*, std::vector<char*>> owned;
};

OwnedTexts& ownedTexts() {
  static OwnedTexts* texts = new OwnedTexts;
  return *texts;
}

void takeOwnership(const qorException* exception, const char* message) {
  if (message == nullptr) return;
  OwnedTexts& texts = ownedTexts();
  std::lock_guard<std::mutex> lock(texts.mutex);
  auto found = texts.pending.find(message);
  if (found == texts.pending.end()) return;
  texts.pending.erase(found);
  texts.owned[exception].push_back(const_cast<char*>(message));
}

void recordOwned(const qorException* exception, char* text) {
  OwnedTexts& texts = ownedTexts();
  std::lock_guard<std::mutex> lock(texts.mutex);
  texts.owned[exception].push_back(text);
}

void releaseOwned(const qorException* exception) {
  std::vector<char*> buffers;
  {
    OwnedTexts& texts = ownedTexts();
    std::lock_guard<std::mutex> lock(texts.mutex);
    auto found = texts.owned.find(exception);
    if (found == texts.owned.end()) return;
    buffers.swap(found->second);
    texts.owned.erase(found);
  }
  for (char* buffer : buffers) free(buffer);
}

}  // namespace

void qor_internal::adoptMessage(char* buffer) {
  if (buffer == nullptr) return;
  OwnedTexts& texts = ownedTexts();
  std::lock_guard<std::mutex> lock(texts.mutex);
  texts.pending.insert(buffer);
}

qorException::qorException() : m_Message(nullptr), m_File(const_cast<char*>(kUnknownFile)), m_Line(0) {}

qorException::qorException(const char* message, char* file, unsigned long line)
    : m_Message(message), m_File(file), m_Line(line) {
  takeOwnership(this, message);
}

qorException::~qorException() { releaseOwned(this); }

char* qorException::what() {
  const char* message = m_Message != nullptr ? m_Message : "(null)";
  const char* file = m_File != nullptr ? m_File : kUnknownFile;
  const char* format = "%s [file %s line %d]\n";
  const int line = static_cast<int>(m_Line);
  const int length = snprintf(nullptr, 0, format, message, file, line);
  char* text = static_cast<char*>(malloc(static_cast<size_t>(length) + 1));
  if (text == nullptr) return const_cast<char*>("qorException: out of memory while composing the message\n");
  snprintf(text, static_cast<size_t>(length) + 1, format, message, file, line);
  recordOwned(this, text);
  m_Message = text;
  return text;
}
