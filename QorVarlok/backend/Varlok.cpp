#include "Varlok.h"

#include <atomic>
#include <cstring>

#include "TagValueText.h"
#include "VarlokTypes.h"

namespace ZelmonteVarlok {

namespace {

// One counter for the whole process: every shared-memory command record
// takes a fresh value, whichever backend object makes it.
std::atomic<uint32_t> g_sessionCounter{1};

}  // namespace

void CopyCallerBytes(void* to, const void* from, size_t n) {
  if (n == 0) return;
  if (to == nullptr || from == nullptr) throw CallerBufferFault();
  std::memcpy(to, from, n);
}

Varlok::Varlok() = default;

Varlok::~Varlok() { ReleaseTagsManager(); }

unsigned int Varlok::InitTagsManager(qorvarlok::symbols::TagsConfig* config, uint32_t instanceId) {
  if (!m_pTagManager) m_pTagManager = std::make_unique<qorvarlok::tags::TagsManager>();
  m_pTagManager->SetInstanceId(instanceId);
  return m_pTagManager->InitTagsManagerPrivate(config);
}

void Varlok::ReleaseTagsManager() {
  if (!m_pTagManager) return;
  m_pTagManager->ReleaseTagsManagerPrivate();
  m_pTagManager.reset();
}

bool Varlok::IsReadable(int accessType) { return accessType == ACCESS_READ || accessType == ACCESS_READWRITE; }

bool Varlok::IsWritable(int accessType) { return accessType == ACCESS_WRITE || accessType == ACCESS_READWRITE; }

int Varlok::baseByteLength(int typeCode) { return qorvarlok::baseByteLength(typeCode); }

uint32_t Varlok::sessionId() { return g_sessionCounter.fetch_add(1); }

int Varlok::serializeString(const std::string& value, int type, unsigned char* dest, int& size) {
  return qorvarlok::tags::EncodeValueText(value, type, dest, size);
}

}  // namespace ZelmonteVarlok
