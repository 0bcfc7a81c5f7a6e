#include "zel/fs/proxy/proxy_file_system_server.h"

#include <cerrno>
#include <chrono>
#include <climits>
#include <optional>
#include <string>
#include <string_view>
#include <typeinfo>
#include <utility>

#include "zel/core/error.h"
#include "zel/fs/local_file_system.h"
#include "zel/fs/native_file_source.h"
#include "zel/ipc/connection_stream.h"
#include "zel/log/xml_log.h"
#include "zel/stream/buffer_stream.h"
#include "zel/stream/stored_error.h"

namespace zel {

const char* const CProxyFileSystemServer::kInvalidStreamMessage = "Invalid proxy stream ID: ";
const char* const CProxyFileSystemServer::kInvalidFileInfoMessage = "Invalid proxy file info ID: ";
const char* const CProxyFileSystemServer::kInvalidLockMessage = "Invalid stream lock ID: ";
const char* const CProxyFileSystemServer::kInvalidMetaModifierMessage =
    "Invalid meta modifier ID: ";
const char* const CProxyFileSystemServer::kInvalidWriteBarrierMessage =
    "Invalid proxy write barrier ID: ";
const char* const CProxyFileSystemServer::kInvalidBackgroundOpMessage =
    "Invalid background op ID: ";
const char* const CProxyFileSystemServer::CLoginManager::kUnexpectedAnswerMessage =
    "CProxyFileSystemServer: Unexpected message code received in response to "
    "ResponseGetLoginInfo: ";

using Target = CShareConfinement::Target;
using Found = CShareConfinement::Found;

namespace {

#ifdef _WIN32
constexpr bool kBackslashIsSeparator = true;
const char* const kNativeMetaDataFormat = "BackupRead";
#else
constexpr bool kBackslashIsSeparator = false;
const char* const kNativeMetaDataFormat = "xattr";
#endif

// The smallest frame limit: room for any error response worth sending.
constexpr int kMinFrameLength = 64;

// The manager bound on this thread while a request runs (see the header).
thread_local CProxyFileSystemServer::CLoginManager* t_boundManager = nullptr;

[[noreturn]] void throwInvalidPath(const String& path) {
  // A NUL would cut the parameter text short when the error is stored.
  CProps params;
  params.set("path", path.cloneReplace(String(L"\0", 1), "%00"));
  const CError cause("Invalid path.", String(), -1, params);
  throw CFileSystemError(CFileSystemError::ProblemUnsupported,
                         CError("Invalid path.", String(), -1, params, &cause));
}

[[noreturn]] void throwBadHandle(const char* prefix, int64 id) {
  throw CError(String(prefix) + String::fromInt64(id));
}

[[noreturn]] void throwTooLarge(int64 length, int limit) {
  throw CIOError(CIOError::InvalidData,
                 "Proxy filesystem response of " + String::fromInt64(length) +
                     " bytes exceeds the frame limit of " + String::fromInt64(limit) + " bytes");
}

// A bulk length announced in a request: within 0 to kMaxDataChunk and no more
// than the request still holds, so nothing is allocated for bytes that are
// not there.
size_t checkedBulkLength(CDataInStream& in, int64 length, const char* function) {
  if (length < 0 || length > CProxyFileSystemBase::kMaxDataChunk) {
    throw CInvalidArgError(function, "data length " + String::fromInt64(length) +
                                         " is outside 0 to " +
                                         String::fromInt64(CProxyFileSystemBase::kMaxDataChunk));
  }
  const int64 total = in.getLength();
  if (total >= 0 && length > total - in.getPosition()) {
    throw CIOError(CIOError::InvalidData,
                   "The proxy request holds fewer data bytes than it announces");
  }
  return static_cast<size_t>(length);
}

void checkNotNegative(int64 value, const char* what, const char* function) {
  if (value < 0) {
    throw CInvalidArgError(function,
                           String("negative ") + what + ": " + String::fromInt64(value));
  }
}

P<TBuffer<unsigned char>> readBulk(CDataInStream& in, size_t length) {
  P<TBuffer<unsigned char>> data = createObject<TBuffer<unsigned char>>(length);
  if (length > 0) in.read(data->getData(), static_cast<int>(length));
  return data;
}

IIOStream::Access toAccess(int access) {
  // Read-only is 1; every other value opens for reading and writing.
  return access == IIOStream::AccessRead ? IIOStream::AccessRead : IIOStream::AccessReadWrite;
}

TFlags<IIOStream::Flags> toOpenFlags(int bits, const char* function) {
  constexpr int kKnown = IIOStream::FlagExclusive | IIOStream::FlagTruncate |
                         IIOStream::FlagAlwaysCreateIfNotExist | IIOStream::FlagFailIfAlreadyExists;
  if ((bits & ~kKnown) != 0) {
    throw CInvalidArgError(function, "unknown open flags: " + String::fromInt64(bits));
  }
  return TFlags<IIOStream::Flags>::fromBits(static_cast<TFlags<IIOStream::Flags>::Bits>(bits));
}

// The items sent with a new file info or listing entry: what the object
// gathered, and the two has*Info flags, which are always known.
uint64 sentItems(IFileInfoBase& info) {
  return info.getCachedInfoMask() | CProxyFileSystemBase::kInfoHasWindowsInfo |
         CProxyFileSystemBase::kInfoHasUnixInfo;
}

Target followTarget(bool followSymLinks) {
  return followSymLinks ? CShareConfinement::FollowLinks : CShareConfinement::LinkItself;
}

// Checks the entry again when the recorded changes are applied: the modifier
// works on the path, which may have changed since it was opened.
class CConfinedMetaModifier : public CBase, public IFileMetaModifier {
 public:
  CConfinedMetaModifier(IFileMetaModifier* inner, CShareConfinement* confinement,
                        const TArray<String>& remainder, Target target)
      : m_inner(inner), m_confinement(confinement), m_remainder(remainder), m_target(target) {}

  void applyCachedChanges() override {
    if (m_confinement) m_confinement->check(m_remainder, m_target);
    m_inner->applyCachedChanges();
  }
  void setCreatedTime(const CTime& time) override { m_inner->setCreatedTime(time); }
  void setDataModifiedTime(const CTime& time) override { m_inner->setDataModifiedTime(time); }
  void setIndexable(bool indexable) override { m_inner->setIndexable(indexable); }
  void setHidden(bool hidden) override { m_inner->setHidden(hidden); }
  void setReadOnly(bool readOnly) override { m_inner->setReadOnly(readOnly); }
  void setWindowsAttributes(uint64 attributes) override {
    m_inner->setWindowsAttributes(attributes);
  }
  void setUnixMode(uint64 mode) override { m_inner->setUnixMode(mode); }

 private:
  P<IFileMetaModifier> m_inner;
  P<CShareConfinement> m_confinement;
  TArray<String> m_remainder;
  Target m_target;
};

}  // namespace

// ---------------------------------------------------------------------------
// Shares

struct CProxyFileSystemServer::CShare : public CBase {
  CURISelector selector;
  P<IFileSystem> fileSystem;
  bool rebase = false;
  CURI root;
  // Null when the share has no root folder on a local disk.
  P<CShareConfinement> confinement;
  // A rebasing share's mapping, where its selector names one prefix; made
  // for each request otherwise (from the URI the client used).
  P<CShareMapping> mapping;
  // The confinement check answers the existence checks (see the header).
  bool existenceFromConfinement = false;
};

namespace {

// The URI naming the selector's area, when the selector names one area of
// the local disk: a "file" scheme, the local (empty) authority and a path.
CURI localPrefixOf(const CURISelector& selector) {
  if (selector.isEmpty() || selector.getScheme() != L"file" || selector.matchesAnyAuthority() ||
      !selector.getAuthority().isEmpty() || selector.getPath().isEmpty()) {
    return CURI();
  }
  try {
    return CURI::parse("file://" + selector.getPath());
  } catch (const CError&) {
    return CURI();
  }
}

}  // namespace

// ---------------------------------------------------------------------------
// CLoginManager

class CProxyFileSystemServer::CLoginManager::CBinding {
 public:
  CBinding(CLoginManager& manager, CProxyFileSystemServer& server, IInStream* in, IOutStream* out,
           int maxFrameLength)
      : m_manager(manager), m_previous(t_boundManager) {
    m_manager.m_server = &server;
    m_manager.m_in = in;
    m_manager.m_out = out;
    m_manager.m_maxFrameLength = maxFrameLength;
    t_boundManager = &manager;
  }
  ~CBinding() {
    t_boundManager = m_previous;
    m_manager.m_server = nullptr;
    m_manager.m_in = nullptr;
    m_manager.m_out = nullptr;
  }
  CBinding(const CBinding&) = delete;
  CBinding& operator=(const CBinding&) = delete;

 private:
  CLoginManager& m_manager;
  CLoginManager* m_previous;
};

CProxyFileSystemServer::CLoginManager::CLoginManager() = default;

CProxyFileSystemServer::CLoginManager::~CLoginManager() = default;

CProxyFileSystemServer::CLoginManager& CProxyFileSystemServer::CLoginManager::activeOnThisThread() {
  CLoginManager* manager = t_boundManager;
  if (manager == nullptr || manager->m_in == nullptr || manager->m_out == nullptr) {
    throw CBadStateError(
        "CProxyFileSystemServer: login information can only be exchanged with the client while "
        "one of its requests is being handled on this thread.");
  }
  return *manager;
}

P<CDataInStream> CProxyFileSystemServer::CLoginManager::exchange(CProxyFileSystemMessage& request) {
  request.write(*m_out);
  P<CProxyFileSystemMessage> answer = CProxyFileSystemMessage::read(*m_in, m_maxFrameLength);
  P<CDataInStream> in = answer->openInStream();
  const int type = in->readInt32();
  if (type == ResponseError) {
    // The client's error, marked with its file-system problem, as the cause.
    P<CError> error = loadError(*in);
    throw CFileSystemError(CFileSystemError::getProblem(error->getParams()),
                           CError(error->getMessage(), error->getErrorCodeDomain(),
                                  error->getErrorCode(), error->getParams(), error.get()));
  }
  if (type != ResponseResult) {
    throw CError(String(kUnexpectedAnswerMessage) + String::fromInt64(type), String(), -1);
  }
  return in;
}

namespace {

// The mapping of the rebasing share a login question of the running request
// is about: the first one whose root holds uri, else the first one (a
// question about a place beyond the root is asked about the share as a
// whole). Null for a request of identity shares only.
P<CShareMapping> mappingFor(const TArray<P<CShareMapping>>& mappings, const CURI& uri) {
  for (const P<CShareMapping>& mapping : mappings) {
    if (!mapping->toClient(uri).isEmpty()) return mapping;
  }
  return mappings.isEmpty() ? P<CShareMapping>() : mappings[0];
}

}  // namespace

CProps CProxyFileSystemServer::CLoginManager::getLoginInfo(const CURI& uri,
                                                           CURISelector* selector) {
  CLoginManager& active = activeOnThisThread();
  const P<CShareMapping> mapping = mappingFor(active.m_server->m_requestMappings, uri);
  CURI asked = uri;
  if (mapping) {
    asked = mapping->toClient(uri);
    if (asked.isEmpty()) asked = mapping->getClientPrefix();
  }
  P<CProxyFileSystemMessage> request = createObject<CProxyFileSystemMessage>();
  P<CDataOutStream> out = request->clearAndOpenOutStream();
  out->writeInt32(ResponseGetLoginInfo);
  out->writeString(asked.toString(true));
  P<CDataInStream> in = active.exchange(*request);
  const String propsText = in->readString();
  const CURISelector area = CURISelector::load(*in);
  CProps props = CProps::fromString(propsText);
  if (selector) *selector = mapping ? mapping->areaToServer(area) : area;
  return props;
}

void CProxyFileSystemServer::CLoginManager::updateLoginInfo(const CURISelector& selector,
                                                            const CProps& props) {
  CLoginManager& active = activeOnThisThread();
  CURISelector area = selector;
  const TArray<P<CShareMapping>>& mappings = active.m_server->m_requestMappings;
  if (!mappings.isEmpty()) {
    area = CURISelector();
    for (const P<CShareMapping>& mapping : mappings) {
      area = mapping->areaToClient(selector);
      if (!area.isEmpty()) break;
    }
  }
  P<CProxyFileSystemMessage> request = createObject<CProxyFileSystemMessage>();
  P<CDataOutStream> out = request->clearAndOpenOutStream();
  out->writeInt32(ResponseUpdateLoginInfo);
  area.store(*out);
  out->writeString(props.toString());
  active.exchange(*request);
}

// ---------------------------------------------------------------------------
// Construction, shares, limits

CProxyFileSystemServer::CProxyFileSystemServer(IConnection* connection)
    : m_connection(connection), m_loginManager(createObject<CLoginManager>()) {
  if (connection == nullptr) {
    throw CInvalidArgError("CProxyFileSystemServer::CProxyFileSystemServer", "connection is null");
  }
  m_in = connection->getInStream();
  m_out = connection->getOutStream();
  m_connectionOut = dynamic_cast<CConnectionOutStream*>(m_out.get());
  m_request = createObject<CProxyFileSystemMessage>();
  m_response = createObject<CProxyFileSystemMessage>();
  initHandlerMap();
}

CProxyFileSystemServer::~CProxyFileSystemServer() { releaseAllHandles(); }

void CProxyFileSystemServer::addShare(const CURISelector& selector, IFileSystem* fileSystem) {
  addShareInternal(selector, fileSystem, CURI(), false);
}

void CProxyFileSystemServer::addShare(const CURISelector& selector, IFileSystem* fileSystem,
                                      const CURI& root) {
  if (root.isEmpty()) {
    throw CInvalidArgError("CProxyFileSystemServer::addShare", "the root of a share is empty");
  }
  addShareInternal(selector, fileSystem, root.toNormalized(), true);
}

void CProxyFileSystemServer::addShareInternal(const CURISelector& selector, IFileSystem* fileSystem,
                                              const CURI& root, bool rebase) {
  if (fileSystem == nullptr) {
    throw CInvalidArgError("CProxyFileSystemServer::addShare", "the file system is null");
  }
  P<CShare> share = createObject<CShare>();
  share->selector = selector;
  share->fileSystem = fileSystem;
  share->rebase = rebase;
  share->root = root;
  const CURI rootURI = rebase ? root : localPrefixOf(selector);
  if (!rootURI.isEmpty()) {
    try {
      share->confinement = createObject<CShareConfinement>(rootURI.toNativePath().toString());
    } catch (const CError&) {
      // Not a folder of the local disk: confined by URIs alone.
    }
  }
  // The local file system itself (a class derived from it may answer
  // otherwise) reaches the very entry that the check resolves: the root and
  // the remainder, which for an identity share holds the client's spelling
  // of the whole path only when the selector compares with case.
  share->existenceFromConfinement = share->confinement &&
                                    typeid(*fileSystem) == typeid(CFileSystem) &&
                                    (rebase || selector.isPathCaseSensitive());
  if (rebase) {
    const CURI prefix = CShareMapping::prefixOf(selector);
    if (!prefix.isEmpty()) {
      share->mapping =
          createObject<CShareMapping>(root, prefix, selector.isPathCaseSensitive());
    }
  }
  fileSystem->setLoginManager(m_loginManager.get());
  m_shares.add(share);
}

void CProxyFileSystemServer::removeShare(const CURISelector& selector) {
  for (int i = m_shares.getCount() - 1; i >= 0; --i) {
    if (m_shares[i]->selector == selector) m_shares.removeAt(i);
  }
}

void CProxyFileSystemServer::setMaxFrameLength(int length) {
  m_maxFrameLength = length < kMinFrameLength ? kMinFrameLength : length;
}

void CProxyFileSystemServer::setMaxOpenHandles(int count) {
  m_maxOpenHandles = count < 1 ? 1 : count;
}

void CProxyFileSystemServer::requestStop() { m_stopRequested.store(true); }

// ---------------------------------------------------------------------------
// Serving

bool CProxyFileSystemServer::handleMessageIfAvailable() {
  P<CProxyFileSystemMessage> request =
      CProxyFileSystemMessage::readIfAvailable(*m_in, m_maxFrameLength);
  if (!request) return false;
  handleInto(*request, *m_response, true);
  sendResponse();
  return true;
}

bool CProxyFileSystemServer::handleNextMessage() {
  // Blocks in the read: a clean end before the first byte is the end.
  if (!m_request->readNext(*m_in, m_maxFrameLength)) return false;
  handleInto(*m_request, *m_response, true);
  sendResponse();
  return true;
}

void CProxyFileSystemServer::sendResponse() {
  FileTail tail;
  std::swap(tail, m_fileTail);
  if (tail.count <= 0) {
    m_response->write(*m_out);
    return;
  }
  m_response->write(*m_out, tail.count);
  const int64 sent = m_connectionOut->sendFromFile(tail.handle, tail.offset, tail.count);
  if (sent < tail.count) {
    // The frame promised more than the file had left: the client would take
    // the next frame for the rest of this one.
    try {
      m_connection->close();
    } catch (...) {
      // Closed already: nothing more to do.
    }
    throw CIOError(CIOError::WriteFailed,
                   "CProxyFileSystemServer: the file shrank while it was being sent (" +
                       String::fromInt64(sent) + " of " + String::fromInt64(tail.count) +
                       " bytes); the connection is closed.");
  }
}

namespace {

// Codes of system errors that mean the other end of a connection has gone.
bool isPeerGoneCode(const CError& error) {
  const int64 code = error.getErrorCode();
  if (error.getErrorCodeDomain() == CError::errnoErrorDomain()) {
    return code == EPIPE || code == ECONNRESET || code == ENOTCONN || code == ECONNABORTED;
  }
  // ERROR_BROKEN_PIPE, ERROR_NO_DATA, ERROR_PIPE_NOT_CONNECTED.
  return error.getErrorCodeDomain() == CError::sysErrorDomain() &&
         (code == 109 || code == 232 || code == 233);
}

// Whether a failure of the connection is the client going away (the end of
// the connection, inside a frame or while the response was sent) rather than
// a fault: every transport reports a write to a gone peer as CIOError
// WriteFailed "The connection is closed", or with the system error as cause.
bool isClientGone(const CError& error) {
  if (error.getErrorCodeDomain() != CIOError::errorCodeDomain()) return false;
  const int64 code = error.getErrorCode();
  if (code == CIOError::UnexpectedEnd) return true;
  if (code != CIOError::ReadFailed && code != CIOError::WriteFailed) return false;
  if (error.getMessage() == "The connection is closed") return true;
  for (PC<CError> cause = error.getCause(); cause; cause = cause->getCause()) {
    if (isPeerGoneCode(*cause)) return true;
  }
  return false;
}

}  // namespace

void CProxyFileSystemServer::serve() {
  try {
    while (handleNextMessage()) {
    }
  } catch (const CError& e) {
    if (m_stopRequested.load() || e.isError(CIOError::errorCodeDomain(), CIOError::StreamClosed)) {
      // Closed on this side (a service stopping): not a failure of the client.
      logInfo("CProxyFileSystemServer: connection closed; serving ends.");
    } else if (isClientGone(e)) {
      logInfo("CProxyFileSystemServer: the client disconnected; serving ends.");
    } else {
      logError("CProxyFileSystemServer: connection failed; serving ends.", &e);
    }
  } catch (const std::exception& e) {
    P<CError> error = CStdExceptionError::exceptionToError(e);
    logError("CProxyFileSystemServer: connection failed; serving ends.", error.get());
  } catch (...) {
    logError("CProxyFileSystemServer: unknown failure; serving ends.");
  }
  try {
    m_connection->close();
  } catch (...) {
    // Closing an ended connection has nothing left to report.
  }
  releaseAllHandles();
}

namespace {

// Replaces whatever response was written by the error. Should even that fail
// (an error text that cannot be encoded), a plain error says so.
void rewriteAsError(CProxyFileSystemMessage& response, std::exception& e,
                    void (*write)(CDataOutStream&, std::exception&)) {
  P<CDataOutStream> out = response.clearAndOpenOutStream();
  try {
    write(*out, e);
  } catch (const std::exception& second) {
    out = response.clearAndOpenOutStream();
    CError fallback(String("CProxyFileSystemServer: the error of the request could not be sent: ") +
                    String(second.what()));
    write(*out, fallback);
  }
}

}  // namespace

P<CProxyFileSystemMessage> CProxyFileSystemServer::handleMessage(CProxyFileSystemMessage& request) {
  P<CProxyFileSystemMessage> response = createObject<CProxyFileSystemMessage>();
  handleInto(request, *response, false);
  return response;
}

void CProxyFileSystemServer::handleInto(CProxyFileSystemMessage& request,
                                        CProxyFileSystemMessage& response, bool serving) {
  m_responseBulk = TConstBufferSlice<unsigned char>();
  m_fileTail = FileTail();
  m_serving = serving;
  m_requestRegistered.clear();
  m_requestReported.clear();
  m_requestMappings.clear();
  m_requestClientTexts.clear();
  m_requestClientURIs.clear();
  try {
    P<CDataOutStream> out = response.clearAndOpenOutStream();
    m_responseStart = out->getPosition();
    P<CDataInStream> in = request.openInStream();
    const int funcID = in->readInt32();
    const Handler* handler = m_handlers.lookup(funcID);
    if (handler == nullptr) {
      throw CError(String("Unknown proxy filesystem function: ") + String::fromInt64(funcID),
                   String(), -1);
    }
    // Refused before anything is done: a background operation would
    // otherwise run without a handle to report it.
    if (registersHandle(funcID)) checkHandleRoom();
    out->writeInt32(ResponseResult);
    {
      CLoginManager::CBinding binding(*m_loginManager, *this, m_in.get(), m_out.get(),
                                      m_maxFrameLength);
      (*handler)(*this, *in, *out);
    }
    if (!m_responseBulk.isEmpty()) response.setBulkData(m_responseBulk);
    m_responseBulk = TConstBufferSlice<unsigned char>();
    const int64 length = response.getPayloadLength() + m_fileTail.count;
    if (length > m_maxFrameLength) throwTooLarge(length, m_maxFrameLength);
    // The response stands: what it reports is forgotten now.
    for (const int64 id : m_requestReported) removeBackgroundOp(id);
  } catch (std::exception& e) {
    failRequest(response, e);
  } catch (...) {
    CError unknown("Unknown exception.");
    failRequest(response, unknown);
  }
  m_serving = false;
  m_requestRegistered.clear();
  m_requestReported.clear();
  m_requestMappings.clear();
  m_requestClientTexts.clear();
  m_requestClientURIs.clear();
}

void CProxyFileSystemServer::failRequest(CProxyFileSystemMessage& response, std::exception& e) {
  m_responseBulk = TConstBufferSlice<unsigned char>();
  m_fileTail = FileTail();
  // A failed request leaves nothing registered.
  for (const int64 id : m_requestRegistered) forgetHandle(id);
  m_requestRegistered.clear();
  P<CError> error = CStdExceptionError::exceptionToError(e);
  if (!m_requestMappings.isEmpty()) error = clientError(*error, m_requestMappings);
  rewriteAsError(response, *error, &writeErrorResponse);
}

bool CProxyFileSystemServer::registersHandle(int funcID) {
  switch (funcID) {
    case FuncStreamOpen:
    case FuncSubDataStreamOpen:
    case FuncFileInfoOpen:
    case FuncStreamCreateWriteBarrier:
    case FuncStreamLockRange:
    case FuncMetaModifierOpen:
    case FuncBackgroundStoreBegin:
    case FuncBackgroundCreateFolderBegin:
    case FuncBackgroundMoveFileBegin:
    case FuncBackgroundDeleteFileBegin:
      return true;
    default:
      return false;
  }
}

void CProxyFileSystemServer::checkHandleRoom() const {
  if (getOpenHandleCount() < m_maxOpenHandles) return;
  const String message = "Too many open handles on this proxy connection (the limit is " +
                         String::fromInt64(m_maxOpenHandles) + "); close some first.";
  CProps params;
  params.setInt64("maxOpenHandles", m_maxOpenHandles);
  throw CFileSystemError(CFileSystemError::ProblemOutOfSpace,
                         CError(message, String(), -1, params));
}

void CProxyFileSystemServer::checkAbandoned() {
  bool clientEnded = false;
  try {
    clientEnded = m_in->isEndOfStream_NonBlocking() == 1;
  } catch (const CError&) {
    clientEnded = true;  // closed on this side
  }
  if (m_stopRequested.load()) {
    throw CIOError(CIOError::StreamClosed, "The proxy file system server is stopping.");
  }
  if (clientEnded) {
    throw CIOError(CIOError::StreamClosed, "The proxy file system client has gone.");
  }
}

bool CProxyFileSystemServer::waitReadableWatching(IInStream& stream, int timeoutMs) {
  if (timeoutMs >= 0 && timeoutMs <= kStopPollMs) return stream.waitReadable(timeoutMs);
  using Clock = std::chrono::steady_clock;
  const bool unlimited = timeoutMs < 0;
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(unlimited ? 0 : timeoutMs);
  for (;;) {
    int slice = kStopPollMs;
    if (!unlimited) {
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
      if (left < slice) slice = left < 0 ? 0 : static_cast<int>(left);
    }
    if (stream.waitReadable(slice)) return true;
    if (!unlimited && Clock::now() >= deadline) return false;
    checkAbandoned();
  }
}

namespace {

String withoutNul(const String& text) { return text.cloneReplace(String(L"\0", 1), "%00"); }

bool holdsNul(const CError& error) {
  for (const CError* level = &error; level; level = level->getCause().get()) {
    auto has = [](const String& text) {
      return text.toStdWString().find(L'\0') != std::wstring::npos;
    };
    if (has(level->getMessage()) || has(level->getErrorCodeDomain())) return true;
    const CProps& params = level->getParams();
    for (int i = 0; i < params.getCount(); ++i) {
      if (has(params.getKey(i)) || has(params.getValue(i))) return true;
    }
  }
  return false;
}

// Stored texts end at a NUL character, and a parameter text cut short cannot
// be loaded again; client input (a URI holding "%00" or a raw NUL) can put
// one into an error. Such a chain is sent with each NUL written "%00".
P<CError> storable(const CError& error) {
  if (!holdsNul(error)) return error.clone();
  P<CError> cause;
  if (PC<CError> inner = error.getCause()) cause = storable(*inner);
  CProps params;
  const CProps& original = error.getParams();
  for (int i = 0; i < original.getCount(); ++i) {
    params.set(withoutNul(original.getKey(i)), withoutNul(original.getValue(i)));
  }
  return createObject<CError>(withoutNul(error.getMessage()),
                              withoutNul(error.getErrorCodeDomain()), error.getErrorCode(), params,
                              cause.get());
}

}  // namespace

void CProxyFileSystemServer::writeErrorResponse(CDataOutStream& out, std::exception& e) {
  out.writeInt32(ResponseError);
  P<CError> error = CStdExceptionError::exceptionToError(e);
  storeError(*storable(*error), out);
}

// ---------------------------------------------------------------------------
// URIs

void CProxyFileSystemServer::validateAndSecurePath(String& path, bool backslashIsSeparator) {
  if (backslashIsSeparator && path.getWxString().find(L'\\') != wxString::npos) {
    std::wstring text = path.toStdWString();
    for (wchar_t& c : text) {
      if (c == L'\\') c = L'/';
    }
    path = String(text);
  }
  vetPath(path);
}

void CProxyFileSystemServer::vetPath(const String& path) {
  // One pass over the text where it stands: every request's path comes here.
  // An empty name between separators, or a name of dots and blanks only
  // (other than "."), is refused; that also covers every ".." name.
  const wchar_t* text = path.toWChar();
  const int length = path.getLength();
  int start = 0;
  bool dotsAndBlanks = true;
  for (int i = 0; i <= length; ++i) {
    const wchar_t c = i < length ? text[i] : L'/';
    if (c == L'\0') throwInvalidPath(path);
    if (c != L'/') {
      dotsAndBlanks = dotsAndBlanks && (c == L'.' || c == L' ');
      continue;
    }
    const int size = i - start;
    if (size == 0) {
      if (start != 0 && i != length) throwInvalidPath(path);
    } else if (dotsAndBlanks && !(size == 1 && text[start] == L'.')) {
      throwInvalidPath(path);
    }
    start = i + 1;
    dotsAndBlanks = true;
  }
}

CProxyFileSystemServer::TargetLoc CProxyFileSystemServer::readAndConvertAbsoluteURI(
    CDataInStream& in) {
  // The client's own text, which errors may quote back to it (isClientText
  // works out the forms of its URI only when asked).
  m_requestClientTexts.add(in.readString());
  return resolveURI(CURI(m_requestClientTexts.back()));
}

CProxyFileSystemServer::TargetLoc CProxyFileSystemServer::convertAbsoluteURI(const CURI& uri) {
  m_requestClientURIs.add(uri);
  return resolveURI(uri);
}

CProxyFileSystemServer::TargetLoc CProxyFileSystemServer::resolveURI(CURI uri) {
  if (!uri.isNormalized()) uri = uri.toNormalized();
  const CURI& normalized = uri;
  // Without escapes the decoded path is the stored one, vetted where it
  // stands (Windows rewrites its separators, so it vets a copy).
  const String& stored = normalized.getPath();
  String decoded;
  if (kBackslashIsSeparator || stored.getWxString().find(L'%') != wxString::npos) {
    decoded = normalized.getDecodedPath();
    validateAndSecurePath(decoded, kBackslashIsSeparator);
  } else {
    vetPath(stored);
  }
  const String& path = decoded.isEmpty() ? stored : decoded;
  TargetLoc loc;
  for (int i = 0; i < m_shares.getCount(); ++i) {
    const CShare& share = *m_shares[i];
    if (!share.selector.matchesNormalized(normalized, &loc.remainder)) continue;
    for (const String& segment : loc.remainder) {
      // An escaped separator would split into two names on the disk.
      const std::wstring_view name(segment.toWChar(), static_cast<size_t>(segment.getLength()));
      if (name.find(L'/') != name.npos || name.find(L'\0') != name.npos ||
          (kBackslashIsSeparator && name.find(L'\\') != name.npos)) {
        throwInvalidPath(path);
      }
    }
    loc.fileSystem = share.fileSystem;
    loc.shareIndex = i;
    if (share.rebase) {
      loc.uri = share.root.append(loc.remainder);
      loc.mapping = share.mapping;
      if (!loc.mapping) {
        CURI prefix = normalized;
        for (int n = 0; n < loc.remainder.getCount(); ++n) prefix = prefix.getParent();
        loc.mapping = createObject<CShareMapping>(share.root, prefix,
                                                  share.selector.isPathCaseSensitive());
      }
      noteMapping(loc.mapping);
    } else {
      // The URI is not needed any more: the location takes it over.
      loc.uri = std::move(uri);
    }
    return loc;
  }
  CProps params;
  params.set("uri", normalized.toString(true));
  throw CError("Proxy URI does not reference a shared filesystem area.", String(), -1, params);
}

void CProxyFileSystemServer::verifyOnSameFileSystem(const TargetLoc& a, const TargetLoc& b) {
  if (a.fileSystem.get() != b.fileSystem.get()) {
    throw CError("Proxy URIs must be on same filesystem for this functionality.", String(), -1);
  }
}

void CProxyFileSystemServer::confine(const TargetLoc& loc, CShareConfinement::Target target) {
  const CShare& share = *m_shares.getAt(loc.shareIndex);
  if (share.confinement) share.confinement->check(loc.remainder, target);
}

CURI CProxyFileSystemServer::mapToClient(const TargetLoc& loc, const CURI& result) {
  if (!loc.mapping) return result;
  const CURI mapped = loc.mapping->toClient(result);
  return mapped.isEmpty() ? loc.mapping->getClientPrefix() : mapped;
}

void CProxyFileSystemServer::noteMapping(const P<CShareMapping>& mapping) {
  if (!mapping) return;
  for (const P<CShareMapping>& known : m_requestMappings) {
    if (known.get() == mapping.get()) return;
  }
  m_requestMappings.add(mapping);
}

void CProxyFileSystemServer::noteHandleMapping(int64 id) {
  if (const P<CShareMapping>* mapping = m_handleMappings.lookup(id)) noteMapping(*mapping);
}

namespace {

bool looksLikeNativeAbsolutePath(const String& text) {
  const std::wstring value = text.toStdWString();
  if (value.empty()) return false;
  if (value[0] == L'/' || value[0] == L'\\') return true;
  return value.size() >= 3 && ((value[0] >= L'A' && value[0] <= L'Z') ||
                               (value[0] >= L'a' && value[0] <= L'z')) &&
         value[1] == L':' && (value[2] == L'\\' || value[2] == L'/');
}

}  // namespace

P<IFileInfoBase> CProxyFileSystemServer::clientInfo(const TargetLoc& loc,
                                                    const TArray<String>& components,
                                                    const P<IFileInfoBase>& info, bool followed) {
  if (info->getSymLinkType() == IFileInfoBase::SymLinkNone) return info;
  const CShare& share = *m_shares.getAt(loc.shareIndex);
  const bool leadsOut = !followed && share.confinement &&
                        !share.confinement->allows(components, CShareConfinement::FollowLinks);
  if (!leadsOut && !loc.mapping) return info;
  P<CFileInfoBase> copy = createObject<CFileInfoBase>();
  copy->construct(*info);
  if (leadsOut) {
    copy->setType(IFileInfoBase::TypeUnknown);
    copy->setSymLinkType(IFileInfoBase::SymLinkUnknownTarget);
  }
  if (loc.mapping) {
    bool replaced = false;
    const String target = loc.mapping->mapText(copy->getSymLinkTargetPath(), &replaced);
    const bool serverPath = !replaced && looksLikeNativeAbsolutePath(target);
    copy->setSymLinkTargetPath(serverPath ? String() : target);
  }
  return copy;
}

bool CProxyFileSystemServer::isClientText(const String& value) const {
  if (m_requestClientTexts.indexOf(value) >= 0) return true;
  // The normalised text and the decoded path of each URI the client named.
  auto isFormOf = [&](const CURI& uri) {
    const CURI normalized = uri.toNormalized();
    if (value == normalized.toString(true)) return true;
    const String path = normalized.getDecodedPath();
    return value == path || (kBackslashIsSeparator && value == path.cloneReplace("\\", "/"));
  };
  for (const CURI& uri : m_requestClientURIs) {
    if (isFormOf(uri)) return true;
  }
  for (const String& text : m_requestClientTexts) {
    try {
      if (isFormOf(CURI(text))) return true;
    } catch (const CError&) {
      // Not a URI: the text itself was compared above.
    }
  }
  return false;
}

P<CError> CProxyFileSystemServer::clientError(const CError& error,
                                              const TArray<P<CShareMapping>>& mappings) const {
  auto map = [&](const String& text, bool& replaced) {
    String result = text;
    replaced = false;
    for (const P<CShareMapping>& mapping : mappings) {
      bool one = false;
      result = mapping->mapText(result, &one);
      replaced |= one;
    }
    return result;
  };
  // A server location the client must not see: not mapped, not its own text,
  // and either a native absolute path or a URI outside every share.
  auto namesServerLocation = [&](const String& value) {
    if (isClientText(value)) return false;
    if (looksLikeNativeAbsolutePath(value)) return true;
    try {
      const CURI uri = CURI::parse(value);
      if (uri.isEmpty() || !(uri.hasAuthority() || uri.getPath().safeAt(0) == L'/')) return false;
      const CURI normalized = uri.toNormalized();
      for (const P<CShare>& share : m_shares) {
        if (share->selector.matches(normalized)) return false;
      }
      return true;
    } catch (const CError&) {
      return false;
    }
  };
  P<CError> cause;
  if (PC<CError> inner = error.getCause()) cause = clientError(*inner, mappings);
  bool replaced = false;
  const String message = map(error.getMessage(), replaced);
  CProps params;
  const CProps& original = error.getParams();
  for (int i = 0; i < original.getCount(); ++i) {
    const String value = map(original.getValue(i), replaced);
    if (!replaced && namesServerLocation(value)) continue;
    params.set(original.getKey(i), value);
  }
  return createObject<CError>(message, error.getErrorCodeDomain(), error.getErrorCode(), params,
                              cause.get());
}

CProxyFileSystemServer::TargetLoc CProxyFileSystemServer::readTarget(CDataInStream& in,
                                                                     Target target) {
  TargetLoc loc = readAndConvertAbsoluteURI(in);
  confine(loc, target);
  return loc;
}

CProxyFileSystemServer::TargetLoc CProxyFileSystemServer::readExistenceTarget(CDataInStream& in,
                                                                              Found& found) {
  TargetLoc loc = readAndConvertAbsoluteURI(in);
  const CShare& share = *m_shares.getAt(loc.shareIndex);
  found = CShareConfinement::FoundUnknown;
  if (share.confinement) {
    share.confinement->check(loc.remainder, CShareConfinement::FollowLinks,
                             share.existenceFromConfinement ? &found : nullptr);
  }
  return loc;
}

void CProxyFileSystemServer::readTwoTargets(CDataInStream& in, Target first, Target second,
                                            TargetLoc& a, TargetLoc& b) {
  a = readAndConvertAbsoluteURI(in);
  b = readAndConvertAbsoluteURI(in);
  verifyOnSameFileSystem(a, b);
  confine(a, first);
  confine(b, second);
}

// ---------------------------------------------------------------------------
// Handle tables

int64 CProxyFileSystemServer::takeHandle() {
  checkHandleRoom();
  const int64 id = m_nextHandle++;
  m_requestRegistered.add(id);
  // A handle of a rebasing share (or of a stream opened through one) keeps
  // its mapping for the errors of later requests.
  if (!m_requestMappings.isEmpty()) m_handleMappings[id] = m_requestMappings[0];
  return id;
}

void CProxyFileSystemServer::forgetHandle(int64 id) {
  m_handleMappings.erase(id);
  m_locks.erase(id);
  m_writeBarriers.erase(id);
  m_metaModifiers.erase(id);
  m_fileInfos.erase(id);
  m_streams.erase(id);
  m_backgroundOps.erase(id);
}

namespace {

template <class T>
void checkReturned(T* object, const char* what) {
  if (object == nullptr) {
    throw CError(String("CProxyFileSystemServer: the file system returned no ") + what + ".");
  }
}

}  // namespace

template <class Table, class Record>
int64 CProxyFileSystemServer::registerIn(Table& table, Record record) {
  const int64 id = takeHandle();
  table[id] = std::move(record);
  return id;
}

template <class Table>
auto CProxyFileSystemServer::findIn(Table& table, int64 id, const char* prefix)
    -> decltype(*table.lookup(id)) {
  auto* entry = table.lookup(id);
  if (entry == nullptr) throwBadHandle(prefix, id);
  noteHandleMapping(id);
  return *entry;
}

template <class Table>
bool CProxyFileSystemServer::removeFrom(Table& table, int64 id) {
  m_handleMappings.erase(id);
  return table.erase(id) > 0;
}

int64 CProxyFileSystemServer::addStream(IIOStream* stream, IFileSystem* fileSystem) {
  checkReturned(stream, "stream");
  return registerIn(m_streams, StreamRecord{P<IIOStream>(stream), P<IFileSystem>(fileSystem)});
}

CProxyFileSystemServer::StreamRecord& CProxyFileSystemServer::getStream(int64 id) {
  return findIn(m_streams, id, kInvalidStreamMessage);
}

bool CProxyFileSystemServer::removeStream(int64 id) { return removeFrom(m_streams, id); }

int64 CProxyFileSystemServer::addFileInfo(IFileInfoBase* info) {
  checkReturned(info, "file info");
  return registerIn(m_fileInfos, FileInfoRecord{P<IFileInfoBase>(info)});
}

CProxyFileSystemServer::FileInfoRecord& CProxyFileSystemServer::getFileInfoRecord(int64 id) {
  return findIn(m_fileInfos, id, kInvalidFileInfoMessage);
}

bool CProxyFileSystemServer::removeFileInfo(int64 id) { return removeFrom(m_fileInfos, id); }

int64 CProxyFileSystemServer::addLock(IStreamLock* lock) {
  checkReturned(lock, "lock");
  return registerIn(m_locks, P<IStreamLock>(lock));
}

P<IStreamLock> CProxyFileSystemServer::getLock(int64 id) {
  return findIn(m_locks, id, kInvalidLockMessage);
}

bool CProxyFileSystemServer::removeLock(int64 id) { return removeFrom(m_locks, id); }

int64 CProxyFileSystemServer::addMetaModifier(IFileMetaModifier* modifier) {
  checkReturned(modifier, "meta modifier");
  return registerIn(m_metaModifiers, P<IFileMetaModifier>(modifier));
}

P<IFileMetaModifier> CProxyFileSystemServer::getMetaModifier(int64 id) {
  return findIn(m_metaModifiers, id, kInvalidMetaModifierMessage);
}

bool CProxyFileSystemServer::removeMetaModifier(int64 id) {
  return removeFrom(m_metaModifiers, id);
}

int64 CProxyFileSystemServer::addWriteBarrier(IWriteBarrier* barrier) {
  checkReturned(barrier, "write barrier");
  return registerIn(m_writeBarriers, P<IWriteBarrier>(barrier));
}

P<IWriteBarrier> CProxyFileSystemServer::getWriteBarrier(int64 id) {
  return findIn(m_writeBarriers, id, kInvalidWriteBarrierMessage);
}

bool CProxyFileSystemServer::removeWriteBarrier(int64 id) {
  return removeFrom(m_writeBarriers, id);
}

int64 CProxyFileSystemServer::addBackgroundOp(IBackgroundOp* op) {
  checkReturned(op, "background operation");
  return registerIn(m_backgroundOps, P<IBackgroundOp>(op));
}

P<IBackgroundOp> CProxyFileSystemServer::getBackgroundOp(int64 id) {
  return findIn(m_backgroundOps, id, kInvalidBackgroundOpMessage);
}

bool CProxyFileSystemServer::removeBackgroundOp(int64 id) {
  return removeFrom(m_backgroundOps, id);
}

void CProxyFileSystemServer::releaseAllHandles() {
  // Moved out first, so that releasing cannot meet a half-cleared table.
  // Locks and barriers go before the streams they belong to.
  TMap<int64, P<IStreamLock>> locks;
  locks.swap(m_locks);
  TMap<int64, P<IWriteBarrier>> barriers;
  barriers.swap(m_writeBarriers);
  TMap<int64, P<IFileMetaModifier>> modifiers;
  modifiers.swap(m_metaModifiers);
  TMap<int64, FileInfoRecord> infos;
  infos.swap(m_fileInfos);
  TMap<int64, StreamRecord> streams;
  streams.swap(m_streams);
  TMap<int64, P<IBackgroundOp>> ops;
  ops.swap(m_backgroundOps);
  m_handleMappings.clear();
  locks.clear();
  barriers.clear();
  modifiers.clear();
  infos.clear();
  streams.clear();
  ops.clear();
}

int CProxyFileSystemServer::getOpenHandleCount() const {
  return m_streams.getCount() + m_fileInfos.getCount() + m_locks.getCount() +
         m_metaModifiers.getCount() + m_writeBarriers.getCount() + m_backgroundOps.getCount();
}

// ---------------------------------------------------------------------------
// Handlers: folders, existence, deletion

void CProxyFileSystemServer::handler_createFolder(CProxyFileSystemServer& server, CDataInStream& in,
                                                  CDataOutStream&) {
  TargetLoc loc = server.readTarget(in, CShareConfinement::FollowLinks);
  const int flags = in.readInt32();
  loc.fileSystem->createFolder(loc.uri, flags);
}

void CProxyFileSystemServer::handler_ensureFolderExists(CProxyFileSystemServer& server,
                                                        CDataInStream& in, CDataOutStream& out) {
  TargetLoc loc = server.readTarget(in, CShareConfinement::FollowLinks);
  const int flags = in.readInt32();
  out.writeBool(loc.fileSystem->ensureFolderExists(loc.uri, flags));
}

void CProxyFileSystemServer::handler_ensureFileExists(CProxyFileSystemServer& server,
                                                      CDataInStream& in, CDataOutStream&) {
  TargetLoc loc = server.readTarget(in, CShareConfinement::FollowLinks);
  loc.fileSystem->ensureFileExists(loc.uri);
}

void CProxyFileSystemServer::handler_fileExists(CProxyFileSystemServer& server, CDataInStream& in,
                                                CDataOutStream& out) {
  Found found;
  const TargetLoc loc = server.readExistenceTarget(in, found);
  // The local file system counts anything but a folder as a file.
  out.writeBool(found == CShareConfinement::FoundUnknown
                    ? loc.fileSystem->fileExists(loc.uri)
                    : found == CShareConfinement::FoundFile || found == CShareConfinement::FoundOther);
}

void CProxyFileSystemServer::handler_folderExists(CProxyFileSystemServer& server, CDataInStream& in,
                                                  CDataOutStream& out) {
  Found found;
  const TargetLoc loc = server.readExistenceTarget(in, found);
  out.writeBool(found == CShareConfinement::FoundUnknown ? loc.fileSystem->folderExists(loc.uri)
                                                         : found == CShareConfinement::FoundFolder);
}

void CProxyFileSystemServer::handler_pathExists(CProxyFileSystemServer& server, CDataInStream& in,
                                                CDataOutStream& out) {
  Found found;
  const TargetLoc loc = server.readExistenceTarget(in, found);
  out.writeBool(found == CShareConfinement::FoundUnknown ? loc.fileSystem->pathExists(loc.uri)
                                                         : found != CShareConfinement::FoundNothing);
}

void CProxyFileSystemServer::handler_isFolderEmpty(CProxyFileSystemServer& server,
                                                   CDataInStream& in, CDataOutStream& out) {
  TargetLoc loc = server.readTarget(in, CShareConfinement::FollowLinks);
  out.writeBool(loc.fileSystem->isFolderEmpty(loc.uri));
}

void CProxyFileSystemServer::handler_quickCheckFolderAccessible(CProxyFileSystemServer& server,
                                                                CDataInStream& in,
                                                                CDataOutStream& out) {
  TargetLoc loc = server.readTarget(in, CShareConfinement::FollowLinks);
  out.writeBool(loc.fileSystem->quickCheckFolderAccessible(loc.uri));
}

void CProxyFileSystemServer::handler_deleteFile(CProxyFileSystemServer& server, CDataInStream& in,
                                                CDataOutStream&) {
  TargetLoc loc = server.readTarget(in, CShareConfinement::ChangesEntry);
  const bool force = in.readBool();
  loc.fileSystem->deleteFile(loc.uri, force);
}

void CProxyFileSystemServer::handler_deleteSymLink(CProxyFileSystemServer& server,
                                                   CDataInStream& in, CDataOutStream&) {
  TargetLoc loc = server.readTarget(in, CShareConfinement::ChangesEntry);
  loc.fileSystem->deleteSymLink(loc.uri);
}

void CProxyFileSystemServer::handler_deleteEmptyFolder(CProxyFileSystemServer& server,
                                                       CDataInStream& in, CDataOutStream&) {
  TargetLoc loc = server.readTarget(in, CShareConfinement::ChangesEntry);
  const bool force = in.readBool();
  loc.fileSystem->deleteEmptyFolder(loc.uri, force);
}

void CProxyFileSystemServer::handler_unlinkFolder(CProxyFileSystemServer& server, CDataInStream& in,
                                                  CDataOutStream&) {
  TargetLoc loc = server.readTarget(in, CShareConfinement::ChangesEntry);
  loc.fileSystem->unlinkFolder(loc.uri);
}

// ---------------------------------------------------------------------------
// Handlers: links, names, moving, copying

void CProxyFileSystemServer::createHardLink(CProxyFileSystemServer& server, CDataInStream& in,
                                            bool folder) {
  TargetLoc link;
  TargetLoc target;
  // link(2) does not follow a final link of its target; a folder's hard link
  // (a junction) is followed whenever it is used.
  server.readTwoTargets(in, CShareConfinement::ChangesEntry,
                        folder ? CShareConfinement::FollowLinks : CShareConfinement::LinkItself,
                        link, target);
  if (folder) {
    link.fileSystem->createFolderHardLink(link.uri, target.uri);
  } else {
    link.fileSystem->createFileHardLink(link.uri, target.uri);
  }
}

void CProxyFileSystemServer::handler_createFileHardLink(CProxyFileSystemServer& server,
                                                        CDataInStream& in, CDataOutStream&) {
  createHardLink(server, in, false);
}

void CProxyFileSystemServer::handler_createFolderHardLink(CProxyFileSystemServer& server,
                                                          CDataInStream& in, CDataOutStream&) {
  createHardLink(server, in, true);
}

void CProxyFileSystemServer::createSymLink(CProxyFileSystemServer& server, CDataInStream& in,
                                           bool folder) {
  const String targetText = in.readString();
  TargetLoc link = server.readAndConvertAbsoluteURI(in);

  CURI target;
  try {
    target = CURI(targetText);
  } catch (const CURIMalformedError&) {
    // A relative reference without a scheme: the rootless URI of the link's
    // scheme carries it unchanged.
    try {
      target = CURI(link.uri.getScheme() + ":" + targetText);
    } catch (const CError&) {
      CProps params;
      params.set("uri", targetText);
      throw CURIMalformedError("Invalid symbolic link target.", params);
    }
  }
  const bool absolute = target.hasAuthority() || target.getPath().safeAt(0) == L'/';
  if (absolute) {
    TargetLoc resolved = server.convertAbsoluteURI(target);
    verifyOnSameFileSystem(link, resolved);
    server.confine(link, CShareConfinement::ChangesEntry);
    server.confine(resolved, CShareConfinement::FollowLinks);
    target = resolved.uri;
  } else {
    server.confine(link, CShareConfinement::ChangesEntry);
  }
  if (folder) {
    link.fileSystem->createFolderSymLink(link.uri, target);
  } else {
    link.fileSystem->createFileSymLink(link.uri, target);
  }
}

void CProxyFileSystemServer::handler_createFileSymLink(CProxyFileSystemServer& server,
                                                       CDataInStream& in, CDataOutStream&) {
  createSymLink(server, in, false);
}

void CProxyFileSystemServer::handler_createFolderSymLink(CProxyFileSystemServer& server,
                                                         CDataInStream& in, CDataOutStream&) {
  createSymLink(server, in, true);
}

void CProxyFileSystemServer::handler_getVolumeRootPath(CProxyFileSystemServer& server,
                                                       CDataInStream& in, CDataOutStream& out) {
  TargetLoc loc = server.readTarget(in, CShareConfinement::FollowLinks);
  const CURI root = loc.fileSystem->getVolumeRootPath(loc.uri);
  out.writeString(server.mapToClient(loc, root).toString(true));
}

void CProxyFileSystemServer::handler_createUniqueFilename(CProxyFileSystemServer& server,
                                                          CDataInStream& in, CDataOutStream& out) {
  TargetLoc loc = server.readTarget(in, CShareConfinement::FollowLinks);
  const String name = in.readString();
  const CURI unique = loc.fileSystem->createUniqueFilename(loc.uri, name);
  out.writeString(server.mapToClient(loc, unique).toString(true));
}

void CProxyFileSystemServer::handler_createUniqueFolderName(CProxyFileSystemServer& server,
                                                            CDataInStream& in,
                                                            CDataOutStream& out) {
  TargetLoc loc = server.readTarget(in, CShareConfinement::FollowLinks);
  const String name = in.readString();
  const CURI unique = loc.fileSystem->createUniqueFolderName(loc.uri, name);
  out.writeString(server.mapToClient(loc, unique).toString(true));
}

void CProxyFileSystemServer::handler_moveFile(CProxyFileSystemServer& server, CDataInStream& in,
                                              CDataOutStream&) {
  TargetLoc from;
  TargetLoc to;
  server.readTwoTargets(in, CShareConfinement::ChangesEntry, CShareConfinement::ChangesEntry, from,
                        to);
  const bool overwrite = in.readBool();
  from.fileSystem->moveFileOrFolder(from.uri, to.uri, overwrite);
}

void CProxyFileSystemServer::handler_copyFile(CProxyFileSystemServer& server, CDataInStream& in,
                                              CDataOutStream&) {
  TargetLoc from;
  TargetLoc to;
  // Opening the target for writing follows a final link there.
  server.readTwoTargets(in, CShareConfinement::FollowLinks, CShareConfinement::FollowLinks, from,
                        to);
  const bool overwrite = in.readBool();
  from.fileSystem->copyFile(from.uri, to.uri, overwrite);
}

void CProxyFileSystemServer::handler_getFreeSpaceInFolder(CProxyFileSystemServer& server,
                                                          CDataInStream& in, CDataOutStream& out) {
  TargetLoc loc = server.readTarget(in, CShareConfinement::FollowLinks);
  out.writeInt64(loc.fileSystem->getFreeSpaceInFolder(loc.uri));
}

void CProxyFileSystemServer::handler_getFileSectorSize(CProxyFileSystemServer& server,
                                                       CDataInStream& in, CDataOutStream& out) {
  TargetLoc loc = server.readTarget(in, CShareConfinement::FollowLinks);
  out.writeInt64(loc.fileSystem->getFileSectorSize(loc.uri));
}

void CProxyFileSystemServer::handler_getAccountOrUserNameUsedForAccess(
    CProxyFileSystemServer& server, CDataInStream& in, CDataOutStream& out) {
  TargetLoc loc = server.readTarget(in, CShareConfinement::FollowLinks);
  out.writeString(loc.fileSystem->getAccountOrUserNameUsedForAccess(loc.uri));
}

// ---------------------------------------------------------------------------
// Handlers: streams

void CProxyFileSystemServer::handler_streamOpen(CProxyFileSystemServer& server, CDataInStream& in,
                                                CDataOutStream& out) {
  TargetLoc loc = server.readTarget(in, CShareConfinement::FollowLinks);
  const int access = in.readInt32();
  const int flags = in.readInt32();
  P<IIOStream> stream = loc.fileSystem->createStream(
      loc.uri, toAccess(access), toOpenFlags(flags, "CProxyFileSystemServer::handler_streamOpen"));
  out.writeInt64(server.addStream(stream.get(), loc.fileSystem.get()));
}

void CProxyFileSystemServer::handler_subDataStreamOpen(CProxyFileSystemServer& server,
                                                       CDataInStream& in, CDataOutStream& out) {
  TargetLoc loc = server.readTarget(in, CShareConfinement::FollowLinks);
  const String name = in.readString();
  const int access = in.readInt32();
  const int flags = in.readInt32();
  P<IIOStream> stream = loc.fileSystem->createSubDataStream(
      loc.uri, name, toAccess(access),
      toOpenFlags(flags, "CProxyFileSystemServer::handler_subDataStreamOpen"));
  out.writeInt64(server.addStream(stream.get(), loc.fileSystem.get()));
}

void CProxyFileSystemServer::handler_streamGetLength(CProxyFileSystemServer& server,
                                                     CDataInStream& in, CDataOutStream& out) {
  out.writeInt64(server.getStream(in.readInt64()).stream->getLength());
}

void CProxyFileSystemServer::handler_streamGetPosition(CProxyFileSystemServer& server,
                                                       CDataInStream& in, CDataOutStream& out) {
  out.writeInt64(server.getStream(in.readInt64()).stream->getPosition());
}

void CProxyFileSystemServer::handler_streamSeek(CProxyFileSystemServer& server, CDataInStream& in,
                                                CDataOutStream&) {
  const int64 id = in.readInt64();
  const int64 position = in.readInt64();
  server.getStream(id).stream->seek(position);
}

void CProxyFileSystemServer::handler_streamSetLength(CProxyFileSystemServer& server,
                                                     CDataInStream& in, CDataOutStream&) {
  const int64 id = in.readInt64();
  const int64 length = in.readInt64();
  IIOStream& stream = *server.getStream(id).stream;
  checkNotNegative(length, "length", "CProxyFileSystemServer::handler_streamSetLength");
  stream.setLength(length);
}

void CProxyFileSystemServer::handler_streamClose(CProxyFileSystemServer& server, CDataInStream& in,
                                                 CDataOutStream&) {
  const int64 id = in.readInt64();
  P<IIOStream> stream = server.getStream(id).stream;
  // The handle is gone even when closing fails: there is nothing left to retry.
  server.removeStream(id);
  stream->close();
}

void CProxyFileSystemServer::handler_streamReadLax(CProxyFileSystemServer& server,
                                                   CDataInStream& in, CDataOutStream& out) {
  handler_streamReadInternal(server, in, out, false);
}

void CProxyFileSystemServer::handler_streamReadAvailable(CProxyFileSystemServer& server,
                                                         CDataInStream& in, CDataOutStream& out) {
  handler_streamReadInternal(server, in, out, true);
}

void CProxyFileSystemServer::handler_streamReadInternal(CProxyFileSystemServer& server,
                                                        CDataInStream& in, CDataOutStream& out,
                                                        bool available) {
  const char* const function = available ? "CProxyFileSystemServer::handler_streamReadAvailable"
                                         : "CProxyFileSystemServer::handler_streamReadLax";
  const int64 id = in.readInt64();
  const int wanted = in.readInt32();
  StreamRecord& record = server.getStream(id);
  IIOStream& stream = *record.stream;
  checkNotNegative(wanted, "byte count", function);
  if (wanted > kMaxDataChunk) {
    throw CInvalidArgError(function, "read of " + String::fromInt64(wanted) +
                                         " bytes is above the limit of " +
                                         String::fromInt64(kMaxDataChunk));
  }
  int64 capacity = wanted;
  // Where the stream knows its length, no more is allocated than it holds.
  const int64 length = stream.getLength();
  int64 position = -1;
  if (length >= 0 && capacity > 0) {
    position = stream.getPosition();
    const int64 left = length - position;
    if (left < capacity) capacity = left < 0 ? 0 : left;
  }
  if (capacity <= 0) {
    out.writeInt32(0);
    return;
  }

  // A local file on a connection that sends from files: the data follows
  // the frame from the page cache (see the file comment). The count is what
  // the file holds now; the stream moves on as a read would have.
  if (server.m_serving && position >= 0 && capacity >= kFileSendMinimum && server.m_connectionOut &&
      server.m_connectionOut->canSendFromFile()) {
    if (auto* file = dynamic_cast<INativeFileSource*>(&stream)) {
      const int64 handle = file->getNativeFileHandle();
      stream.seek(position + capacity);
      out.writeInt32(static_cast<int>(capacity));
      server.m_fileTail = FileTail{record.stream, handle, position, capacity};
      return;
    }
  }

  // Copied through a buffer: the connection's own while serving (its
  // response is sent before the next request reuses it), a new one for
  // handleMessage(), whose caller keeps the response.
  P<TBuffer<unsigned char>> data;
  if (server.m_serving) {
    if (!server.m_readBuffer) server.m_readBuffer = createObject<TBuffer<unsigned char>>();
    // Zeroed once as it grows; every later read overwrites what it returns.
    if (server.m_readBuffer->getSize() < static_cast<size_t>(capacity)) {
      server.m_readBuffer->resize(static_cast<size_t>(capacity));
    }
    data = server.m_readBuffer;
  } else {
    data = createObject<TBuffer<unsigned char>>(static_cast<size_t>(capacity));
  }
  int got = 0;
  if (available) {
    got = stream.readAvailable(data->getData(), static_cast<int>(capacity));
  } else if (length >= 0) {
    got = stream.readLax(data->getData(), static_cast<int>(capacity));
  } else {
    got = server.readWatching(stream, data->getData(), static_cast<int>(capacity));
  }
  if (got < 0 || got > capacity) got = 0;
  out.writeInt32(got);
  if (got > 0) {
    server.setResponseBulk(
        TConstBufferSlice<unsigned char>(PC<TBuffer<unsigned char>>(data), 0, static_cast<size_t>(got)));
  }
}

void CProxyFileSystemServer::handler_streamWaitReadable(CProxyFileSystemServer& server,
                                                        CDataInStream& in, CDataOutStream& out) {
  const int64 id = in.readInt64();
  const int timeout = in.readInt32();
  out.writeBool(server.waitReadableWatching(*server.getStream(id).stream, timeout));
}

void CProxyFileSystemServer::handler_streamIsEnd(CProxyFileSystemServer& server, CDataInStream& in,
                                                 CDataOutStream& out) {
  IIOStream& stream = *server.getStream(in.readInt64()).stream;
  // Readable means data or the end is at hand: the test no longer waits.
  server.waitReadableWatching(stream, -1);
  out.writeBool(stream.isEndOfStream());
}

int CProxyFileSystemServer::readWatching(IInStream& stream, unsigned char* buffer, int bytes) {
  int got = 0;
  while (got < bytes) {
    waitReadableWatching(stream, -1);
    const int part = stream.readAvailable(buffer + got, bytes - got);
    if (part > 0) {
      got += part;
      continue;
    }
    // Readable with nothing at hand is the end; a stream that cannot tell
    // is read as it reads.
    if (stream.isEndOfStream_NonBlocking() != 1) got += stream.readLax(buffer + got, bytes - got);
    break;
  }
  return got;
}

void CProxyFileSystemServer::handler_streamIsEnd_NonBlocking(CProxyFileSystemServer& server,
                                                             CDataInStream& in,
                                                             CDataOutStream& out) {
  out.writeInt32(server.getStream(in.readInt64()).stream->isEndOfStream_NonBlocking());
}

void CProxyFileSystemServer::handler_streamWrite(CProxyFileSystemServer& server, CDataInStream& in,
                                                 CDataOutStream&) {
  const int64 id = in.readInt64();
  const int64 barrierID = in.readInt64();
  const int count = in.readInt32();
  P<IIOStream> stream = server.getStream(id).stream;
  P<IWriteBarrier> barrier;
  if (barrierID != 0) barrier = server.getWriteBarrier(barrierID);
  const size_t length = checkedBulkLength(in, count, "CProxyFileSystemServer::handler_streamWrite");
  P<TBuffer<unsigned char>> data = readBulk(in, length);
  stream->write(data->getData(), static_cast<int>(length), barrier.get());
}

void CProxyFileSystemServer::handler_streamFlush(CProxyFileSystemServer& server, CDataInStream& in,
                                                 CDataOutStream&) {
  server.getStream(in.readInt64()).stream->flush();
}

void CProxyFileSystemServer::handler_streamCreateWriteBarrier(CProxyFileSystemServer& server,
                                                              CDataInStream& in,
                                                              CDataOutStream& out) {
  const int64 id = in.readInt64();
  const int64 parentID = in.readInt64();
  P<IWriteBarrier> parent;
  if (parentID != 0) parent = server.getWriteBarrier(parentID);
  P<IWriteBarrier> barrier = server.getStream(id).stream->createWriteBarrier(parent.get());
  out.writeInt64(server.addWriteBarrier(barrier.get()));
}

void CProxyFileSystemServer::handler_writeBarrierRelease(CProxyFileSystemServer& server,
                                                         CDataInStream& in, CDataOutStream&) {
  server.removeWriteBarrier(in.readInt64());
}

void CProxyFileSystemServer::handler_streamLockRange(CProxyFileSystemServer& server,
                                                     CDataInStream& in, CDataOutStream& out) {
  static const char* const kFunction = "CProxyFileSystemServer::handler_streamLockRange";
  const int64 id = in.readInt64();
  const int64 start = in.readInt64();
  const int64 bytes = in.readInt64();
  const int type = in.readInt32();
  IIOStream& stream = *server.getStream(id).stream;
  if (type != IStreamBase::Shared && type != IStreamBase::Exclusive) {
    throw CInvalidArgError(kFunction, "unknown lock type " + String::fromInt64(type));
  }
  checkNotNegative(start, "start", kFunction);
  checkNotNegative(bytes, "byte count", kFunction);
  P<IStreamLock> lock = stream.lockRange(
      start, bytes, type == IStreamBase::Shared ? IStreamBase::Shared : IStreamBase::Exclusive);
  out.writeInt64(server.addLock(lock.get()));
}

void CProxyFileSystemServer::handler_lockRelease(CProxyFileSystemServer& server, CDataInStream& in,
                                                 CDataOutStream&) {
  server.removeLock(in.readInt64());
}

// ---------------------------------------------------------------------------
// Handlers: information, listings, metadata

void CProxyFileSystemServer::handler_fileInfoOpen(CProxyFileSystemServer& server, CDataInStream& in,
                                                  CDataOutStream& out) {
  TargetLoc loc = server.readAndConvertAbsoluteURI(in);
  const bool followSymLinks = in.readBool();
  server.confine(loc, followTarget(followSymLinks));
  P<IFileInfoBase> info = loc.fileSystem->getFileInfo(loc.uri, followSymLinks);
  if (!info) throw CError("CProxyFileSystemServer: the file system returned no file info.");
  info = server.clientInfo(loc, loc.remainder, info, followSymLinks);
  out.writeInt64(server.addFileInfo(info.get()));
  writeInfoItemsByMask(out, *info, sentItems(*info));
}

void CProxyFileSystemServer::handler_fileInfoGet(CProxyFileSystemServer& server, CDataInStream& in,
                                                 CDataOutStream& out) {
  P<IFileInfoBase> info = server.getFileInfoRecord(in.readInt64()).info;
  writeInfoItemsByMask(out, *info, kAllInfoItems);
}

void CProxyFileSystemServer::handler_fileInfoClose(CProxyFileSystemServer& server,
                                                   CDataInStream& in, CDataOutStream&) {
  server.removeFileInfo(in.readInt64());
}

void CProxyFileSystemServer::handler_getFolderContents(CProxyFileSystemServer& server,
                                                       CDataInStream& in, CDataOutStream& out) {
  TargetLoc loc = server.readTarget(in, CShareConfinement::FollowLinks);
  P<IFolderContentsIterator> items = loc.fileSystem->getFolderContents(loc.uri);
  if (!items) throw CError("CProxyFileSystemServer: the file system returned no folder listing.");
  while (items->nextItem()) {
    const String name = items->getItemName();
    if (name.isEmpty()) continue;  // the empty name ends the list
    P<IFileInfoBase> info = items->getItemInfo();
    if (!info) throw CError("CProxyFileSystemServer: the folder listing returned no file info.");
    if (info->getSymLinkType() != IFileInfoBase::SymLinkNone) {
      TArray<String> components = loc.remainder;
      components.add(name);
      info = server.clientInfo(loc, components, info, false);
    }
    out.writeString(name);
    out.writeInt32(info->getType());
    writeInfoItemsByMask(out, *info, sentItems(*info));
    // Give up as soon as the answer cannot be sent, not after the whole
    // folder has been gathered.
    if (server.responseBytes(out) > server.m_maxFrameLength) {
      throwTooLarge(server.responseBytes(out), server.m_maxFrameLength);
    }
  }
  out.writeString(String());
}

void CProxyFileSystemServer::handler_getNativeMetaData(CProxyFileSystemServer& server,
                                                       CDataInStream& in, CDataOutStream& out) {
  TargetLoc loc = server.readAndConvertAbsoluteURI(in);
  const bool followSymLinks = in.readBool();
  const String which = in.readString();
  server.confine(loc, followTarget(followSymLinks));
  P<IFileSystem::CNativeMetaData> data =
      loc.fileSystem->getNativeMetaData(loc.uri, followSymLinks, which);
  const size_t size = data ? data->getSize() : 0;
  if (size > static_cast<size_t>(INT_MAX))
    throwTooLarge(static_cast<int64>(size), server.m_maxFrameLength);
  out.writeString(kNativeMetaDataFormat);
  out.writeBool(!data.isNull());
  out.writeInt32(static_cast<int>(size));
  if (size > 0) {
    server.setResponseBulk(TConstBufferSlice<unsigned char>(PC<TBuffer<unsigned char>>(data)));
  }
}

void CProxyFileSystemServer::handler_metaModifierOpen(CProxyFileSystemServer& server,
                                                      CDataInStream& in, CDataOutStream& out) {
  TargetLoc loc = server.readAndConvertAbsoluteURI(in);
  const bool followSymLinks = in.readBool();
  const Target target = followTarget(followSymLinks);
  server.confine(loc, target);
  P<IFileMetaModifier> modifier = loc.fileSystem->createMetaModifier(loc.uri, followSymLinks);
  if (!modifier) throw CError("CProxyFileSystemServer: the file system returned no meta modifier.");
  P<CShareConfinement> confinement = server.m_shares.getAt(loc.shareIndex)->confinement;
  P<IFileMetaModifier> confined =
      createObject<CConfinedMetaModifier>(modifier.get(), confinement.get(), loc.remainder, target);
  out.writeInt64(server.addMetaModifier(confined.get()));
}

void CProxyFileSystemServer::handler_metaModifierApplyCachedChanges(CProxyFileSystemServer& server,
                                                                    CDataInStream& in,
                                                                    CDataOutStream&) {
  server.getMetaModifier(in.readInt64())->applyCachedChanges();
}

void CProxyFileSystemServer::handler_metaModifierSetCreatedTime(CProxyFileSystemServer& server,
                                                                CDataInStream& in,
                                                                CDataOutStream&) {
  const int64 id = in.readInt64();
  const int64 time = in.readInt64();
  server.getMetaModifier(id)->setCreatedTime(CTime(time));
}

void CProxyFileSystemServer::handler_metaModifierSetDataModifiedTime(CProxyFileSystemServer& server,
                                                                     CDataInStream& in,
                                                                     CDataOutStream&) {
  const int64 id = in.readInt64();
  const int64 time = in.readInt64();
  server.getMetaModifier(id)->setDataModifiedTime(CTime(time));
}

void CProxyFileSystemServer::handler_metaModifierSetIndexable(CProxyFileSystemServer& server,
                                                              CDataInStream& in, CDataOutStream&) {
  const int64 id = in.readInt64();
  const bool value = in.readBool();
  server.getMetaModifier(id)->setIndexable(value);
}

void CProxyFileSystemServer::handler_metaModifierSetHidden(CProxyFileSystemServer& server,
                                                           CDataInStream& in, CDataOutStream&) {
  const int64 id = in.readInt64();
  const bool value = in.readBool();
  server.getMetaModifier(id)->setHidden(value);
}

void CProxyFileSystemServer::handler_metaModifierSetReadOnly(CProxyFileSystemServer& server,
                                                             CDataInStream& in, CDataOutStream&) {
  const int64 id = in.readInt64();
  const bool value = in.readBool();
  server.getMetaModifier(id)->setReadOnly(value);
}

void CProxyFileSystemServer::handler_metaModifierSetWindowsAttributes(
    CProxyFileSystemServer& server, CDataInStream& in, CDataOutStream&) {
  const int64 id = in.readInt64();
  const uint64 value = in.readUInt64();
  server.getMetaModifier(id)->setWindowsAttributes(value);
}

void CProxyFileSystemServer::handler_metaModifierSetUnixMode(CProxyFileSystemServer& server,
                                                             CDataInStream& in, CDataOutStream&) {
  const int64 id = in.readInt64();
  const uint64 value = in.readUInt64();
  server.getMetaModifier(id)->setUnixMode(value);
}

void CProxyFileSystemServer::handler_metaModifierClose(CProxyFileSystemServer& server,
                                                       CDataInStream& in, CDataOutStream&) {
  server.removeMetaModifier(in.readInt64());
}

// ---------------------------------------------------------------------------
// Handlers: background operations

void CProxyFileSystemServer::handler_backgroundStoreBegin(CProxyFileSystemServer& server,
                                                          CDataInStream& in, CDataOutStream& out) {
  TargetLoc loc = server.readTarget(in, CShareConfinement::FollowLinks);
  const int64 length = in.readInt64();
  const bool overwrite = in.readBool();
  const size_t bytes =
      checkedBulkLength(in, length, "CProxyFileSystemServer::handler_backgroundStoreBegin");
  // The worker reads the source later, so it gets a copy of its own.
  P<CBufferStream> source = createObject<CBufferStream>(readBulk(in, bytes), true);
  P<IBackgroundOp> op =
      loc.fileSystem->backgroundStore(loc.uri, length, source.get(), overwrite, nullptr);
  out.writeInt64(server.addBackgroundOp(op.get()));
}

void CProxyFileSystemServer::handler_backgroundCreateFolderBegin(CProxyFileSystemServer& server,
                                                                 CDataInStream& in,
                                                                 CDataOutStream& out) {
  TargetLoc loc = server.readTarget(in, CShareConfinement::FollowLinks);
  const int flags = in.readInt32();
  P<IBackgroundOp> op = loc.fileSystem->backgroundCreateFolder(loc.uri, flags, nullptr);
  out.writeInt64(server.addBackgroundOp(op.get()));
}

void CProxyFileSystemServer::handler_backgroundMoveFileBegin(CProxyFileSystemServer& server,
                                                             CDataInStream& in,
                                                             CDataOutStream& out) {
  TargetLoc from;
  TargetLoc to;
  server.readTwoTargets(in, CShareConfinement::ChangesEntry, CShareConfinement::ChangesEntry, from,
                        to);
  const bool overwrite = in.readBool();
  P<IBackgroundOp> op =
      from.fileSystem->backgroundMoveFileOrFolder(from.uri, to.uri, overwrite, nullptr);
  out.writeInt64(server.addBackgroundOp(op.get()));
}

void CProxyFileSystemServer::handler_backgroundDeleteFileBegin(CProxyFileSystemServer& server,
                                                               CDataInStream& in,
                                                               CDataOutStream& out) {
  TargetLoc loc = server.readTarget(in, CShareConfinement::ChangesEntry);
  P<IBackgroundOp> op = loc.fileSystem->backgroundDeleteFile(loc.uri, nullptr);
  out.writeInt64(server.addBackgroundOp(op.get()));
}

namespace {

// One report of backgroundOpsFinalize: the handle, the failed flag and the
// error.
P<CBufferStream> finalizeReport(int64 id, const CError* error) {
  P<CBufferStream> bytes = createObject<CBufferStream>();
  P<CDataOutStream> out = createObject<CDataOutStream>(bytes.get());
  out->writeInt64(id);
  out->writeBool(error != nullptr);
  if (error) storeError(*error, *out);
  return bytes;
}

}  // namespace

void CProxyFileSystemServer::handler_backgroundOpsFinalize(CProxyFileSystemServer& server,
                                                           CDataInStream& in, CDataOutStream& out) {
  // Every handle is looked up before anything is reported, so an unknown one
  // fails the request without losing the reports of the others.
  TArray<int64> listed;
  for (;;) {
    const int64 id = in.readInt64();
    if (id == kHandleListEnd) break;
    server.getBackgroundOp(id);
    listed.add(id);
  }
  // What follows the reports: the end of the list.
  constexpr int64 kEndBytes = 8;
  for (const int64 id : listed) {
    if (server.m_requestReported.indexOf(id) >= 0) continue;  // listed twice
    P<IBackgroundOp> op = server.getBackgroundOp(id);
    if (!op->hasFinished()) continue;
    P<CError> error;
    try {
      op->throwErrorIfFailed();
    } catch (const std::exception& e) {
      error = CStdExceptionError::exceptionToError(e);
      if (const P<CShareMapping>* mapping = server.m_handleMappings.lookup(id)) {
        error = server.clientError(*error, TArray<P<CShareMapping>>{*mapping});
      }
      error = storable(*error);
    }
    P<CBufferStream> report = finalizeReport(id, error.get());
    const int64 room = server.m_maxFrameLength - server.responseBytes(out) - kEndBytes;
    if (report->getLength() > room) {
      const bool alone = server.m_requestReported.isEmpty();
      if (!alone || !error) break;  // the rest waits for the next call
      // Too large even alone: it could never be reported as it is.
      CProps params;
      const String& problemKey = CFileSystemError::paramFileSysProblem();
      if (error->getParams().has(problemKey)) {
        params.set(problemKey, error->getParams().get(problemKey));
      }
      const CError shortError("The error of the background operation is too large to send (" +
                                  String::fromInt64(report->getLength()) + " bytes).",
                              error->getErrorCodeDomain(), error->getErrorCode(), params);
      report = finalizeReport(id, &shortError);
      if (report->getLength() > room) break;
    }
    const auto& bytes = *report->getBuffer();
    out.write(bytes.getData(), static_cast<int>(bytes.getSize()));
    // Forgotten by handleInto once the response is known to be sent.
    server.m_requestReported.add(id);
  }
  out.writeInt64(kHandleListEnd);
}

// ---------------------------------------------------------------------------

void CProxyFileSystemServer::initHandlerMap() {
  m_handlers = {
      {FuncCreateFolder, &handler_createFolder},
      {FuncEnsureFolderExists, &handler_ensureFolderExists},
      {FuncEnsureFileExists, &handler_ensureFileExists},
      {FuncCreateFileHardLink, &handler_createFileHardLink},
      {FuncCreateFolderHardLink, &handler_createFolderHardLink},
      {FuncCreateFileSymLink, &handler_createFileSymLink},
      {FuncCreateFolderSymLink, &handler_createFolderSymLink},
      {FuncFileExists, &handler_fileExists},
      {FuncFolderExists, &handler_folderExists},
      {FuncPathExists, &handler_pathExists},
      {FuncIsFolderEmpty, &handler_isFolderEmpty},
      {FuncDeleteFile, &handler_deleteFile},
      {FuncDeleteSymLink, &handler_deleteSymLink},
      {FuncDeleteEmptyFolder, &handler_deleteEmptyFolder},
      {FuncUnlinkFolder, &handler_unlinkFolder},
      {FuncGetVolumeRootPath, &handler_getVolumeRootPath},
      {FuncCreateUniqueFilename, &handler_createUniqueFilename},
      {FuncCreateUniqueFolderName, &handler_createUniqueFolderName},
      {FuncMoveFile, &handler_moveFile},
      {FuncCopyFile, &handler_copyFile},
      {FuncGetFreeSpaceInFolder, &handler_getFreeSpaceInFolder},
      {FuncStreamOpen, &handler_streamOpen},
      {FuncSubDataStreamOpen, &handler_subDataStreamOpen},
      {FuncStreamGetLength, &handler_streamGetLength},
      {FuncStreamGetPosition, &handler_streamGetPosition},
      {FuncStreamSeek, &handler_streamSeek},
      {FuncStreamClose, &handler_streamClose},
      {FuncStreamReadLax, &handler_streamReadLax},
      {FuncStreamReadAvailable, &handler_streamReadAvailable},
      {FuncStreamWaitReadable, &handler_streamWaitReadable},
      {FuncStreamIsEnd, &handler_streamIsEnd},
      {FuncStreamIsEnd_NonBlocking, &handler_streamIsEnd_NonBlocking},
      {FuncStreamWrite, &handler_streamWrite},
      {FuncStreamFlush, &handler_streamFlush},
      {FuncFileInfoOpen, &handler_fileInfoOpen},
      {FuncFileInfoGet, &handler_fileInfoGet},
      {FuncFileInfoClose, &handler_fileInfoClose},
      {FuncGetFolderContents, &handler_getFolderContents},
      {FuncGetNativeMetaData, &handler_getNativeMetaData},
      {FuncStreamCreateWriteBarrier, &handler_streamCreateWriteBarrier},
      {FuncStreamSetLength, &handler_streamSetLength},
      {FuncWriteBarrierRelease, &handler_writeBarrierRelease},
      {FuncBackgroundStoreBegin, &handler_backgroundStoreBegin},
      {FuncBackgroundCreateFolderBegin, &handler_backgroundCreateFolderBegin},
      {FuncBackgroundMoveFileBegin, &handler_backgroundMoveFileBegin},
      {FuncBackgroundDeleteFileBegin, &handler_backgroundDeleteFileBegin},
      {FuncBackgroundOpsFinalize, &handler_backgroundOpsFinalize},
      {FuncStreamLockRange, &handler_streamLockRange},
      {FuncLockRelease, &handler_lockRelease},
      {FuncGetFileSectorSize, &handler_getFileSectorSize},
      {FuncMetaModifierOpen, &handler_metaModifierOpen},
      {FuncMetaModifierApplyCachedChanges, &handler_metaModifierApplyCachedChanges},
      {FuncMetaModifierSetCreatedTime, &handler_metaModifierSetCreatedTime},
      {FuncMetaModifierSetDataModifiedTime, &handler_metaModifierSetDataModifiedTime},
      {FuncMetaModifierSetIndexable, &handler_metaModifierSetIndexable},
      {FuncMetaModifierSetHidden, &handler_metaModifierSetHidden},
      {FuncMetaModifierSetReadOnly, &handler_metaModifierSetReadOnly},
      {FuncMetaModifierSetWindowsAttributes, &handler_metaModifierSetWindowsAttributes},
      {FuncMetaModifierSetUnixMode, &handler_metaModifierSetUnixMode},
      {FuncMetaModifierClose, &handler_metaModifierClose},
      {FuncGetAccountOrUserNameUsedForAccess, &handler_getAccountOrUserNameUsedForAccess},
      {FuncQuickCheckFolderAccessible, &handler_quickCheckFolderAccessible},
  };
}

}  // namespace zel
