#include "zel/fs/background_op_thread.h"

#include <algorithm>
#include <memory>

#include "zel/log/xml_log.h"

namespace zel {

const char* const CBackgroundOpThread::kThreadName = "zel.backgroundOps";
const char* const CBackgroundOpThread::kAbortMessage =
    "Background store operation aborted because CBackgroundOpThread needs to "
    "exit.";

// ---------------------------------------------------------------------------
// CJob

CBackgroundOpThread::CJob::CJob(IDoneListener* listener) : m_listener(listener) {}

CBackgroundOpThread::CJob::~CJob() = default;

bool CBackgroundOpThread::CJob::hasFinished() { return m_finished.isSet(); }

bool CBackgroundOpThread::CJob::waitFinished(int timeoutMs) { return m_finished.wait(timeoutMs); }

void CBackgroundOpThread::CJob::throwErrorIfFailed() {
  if (!m_finished.isSet()) {
    throw CBadStateError("throwErrorIfFailed called on a background operation still running.");
  }
  P<CError> error;
  {
    CMutexLock lock(m_mutex);
    error = m_error;
  }
  if (error) error->throwClone();
}

void CBackgroundOpThread::CJob::execute() {
  P<CError> error;
  try {
    run();
  } catch (...) {
    error = CStdExceptionError::exceptionToError();
  }
  complete(std::move(error));
}

void CBackgroundOpThread::CJob::fail(const CError& error) { complete(error.clone()); }

void CBackgroundOpThread::CJob::complete(P<CError> error) {
  P<IDoneListener> listener;
  {
    CMutexLock lock(m_mutex);
    m_error = std::move(error);
    // Told once: the reference goes with the notification.
    listener = std::move(m_listener);
  }
  m_finished.set();
  if (!listener) return;
  try {
    listener->onBackgroundOpDone(this);
  } catch (...) {
    P<CError> thrown = CStdExceptionError::exceptionToError();
    logError("A background operation's done listener threw.", thrown.get());
  }
}

// ---------------------------------------------------------------------------
// The four kinds of job

CBackgroundOpThread::CStoreJob::CStoreJob(IFileSystem* fileSystem, const CURI& uri, int64 length,
                                          IInStream* source, bool overwrite,
                                          IDoneListener* listener)
    : CJob(listener),
      m_fileSystem(fileSystem),
      m_uri(uri),
      m_length(length),
      m_source(source),
      m_overwrite(overwrite) {}

CBackgroundOpThread::CStoreJob::~CStoreJob() = default;

void CBackgroundOpThread::CStoreJob::run() {
  TFlags<IIOStream::Flags> flags(IIOStream::FlagTruncate);
  if (!m_overwrite) flags.set(IIOStream::FlagFailIfAlreadyExists);
  P<IIOStream> target = m_fileSystem->createStream(m_uri, IIOStream::AccessReadWrite, flags);
  int64 left = m_length;
  if (left > 0) {
    const int chunk = static_cast<int>(std::min<int64>(left, kChunkSize));
    std::unique_ptr<unsigned char[]> buffer(new unsigned char[chunk]);
    while (left > 0) {
      const int bytes = static_cast<int>(std::min<int64>(left, chunk));
      m_source->read(buffer.get(), bytes);
      target->write(buffer.get(), bytes);
      left -= bytes;
    }
  }
  target->close();
}

CBackgroundOpThread::CCreateFolderJob::CCreateFolderJob(IFileSystem* fileSystem, const CURI& uri,
                                                        int flags, IDoneListener* listener)
    : CJob(listener), m_fileSystem(fileSystem), m_uri(uri), m_flags(flags) {}

CBackgroundOpThread::CCreateFolderJob::~CCreateFolderJob() = default;

void CBackgroundOpThread::CCreateFolderJob::run() { m_fileSystem->createFolder(m_uri, m_flags); }

CBackgroundOpThread::CDeleteFileJob::CDeleteFileJob(IFileSystem* fileSystem, const CURI& uri,
                                                    IDoneListener* listener)
    : CJob(listener), m_fileSystem(fileSystem), m_uri(uri) {}

CBackgroundOpThread::CDeleteFileJob::~CDeleteFileJob() = default;

void CBackgroundOpThread::CDeleteFileJob::run() { m_fileSystem->deleteFile(m_uri, false); }

CBackgroundOpThread::CMoveFileJob::CMoveFileJob(IFileSystem* fileSystem, const CURI& source,
                                                const CURI& target, bool overwrite,
                                                IDoneListener* listener)
    : CJob(listener),
      m_fileSystem(fileSystem),
      m_source(source),
      m_target(target),
      m_overwrite(overwrite) {}

CBackgroundOpThread::CMoveFileJob::~CMoveFileJob() = default;

void CBackgroundOpThread::CMoveFileJob::run() {
  m_fileSystem->moveFileOrFolder(m_source, m_target, m_overwrite);
}

// ---------------------------------------------------------------------------
// CBackgroundOpThread

CBackgroundOpThread::CBackgroundOpThread() { setThreadName(kThreadName); }

CBackgroundOpThread::~CBackgroundOpThread() {
  // The run has ended (CThread stops it before destruction); jobs added after
  // it left its loop must not leave their waiters hanging.
  abortQueuedJobs();
}

namespace {

void checkFileSystem(IFileSystem* fileSystem, const char* function) {
  if (!fileSystem) throw CInvalidArgError(function, "The file system is null.");
}

}  // namespace

P<IBackgroundOp> CBackgroundOpThread::addStoreJob(IFileSystem* fileSystem, const CURI& uri,
                                                  int64 length, IInStream* source, bool overwrite,
                                                  IDoneListener* listener) {
  static const char* const kFunction = "CBackgroundOpThread::addStoreJob";
  checkFileSystem(fileSystem, kFunction);
  if (length < 0) throw CInvalidArgError(kFunction, "The length is negative.");
  if (!source && length > 0) throw CInvalidArgError(kFunction, "The source stream is null.");
  return addJob(createObject<CStoreJob>(fileSystem, uri, length, source, overwrite, listener));
}

P<IBackgroundOp> CBackgroundOpThread::addCreateFolderJob(IFileSystem* fileSystem, const CURI& uri,
                                                         int flags, IDoneListener* listener) {
  checkFileSystem(fileSystem, "CBackgroundOpThread::addCreateFolderJob");
  return addJob(createObject<CCreateFolderJob>(fileSystem, uri, flags, listener));
}

P<IBackgroundOp> CBackgroundOpThread::addDeleteFileJob(IFileSystem* fileSystem, const CURI& uri,
                                                       IDoneListener* listener) {
  checkFileSystem(fileSystem, "CBackgroundOpThread::addDeleteFileJob");
  return addJob(createObject<CDeleteFileJob>(fileSystem, uri, listener));
}

P<IBackgroundOp> CBackgroundOpThread::addMoveFileJob(IFileSystem* fileSystem, const CURI& source,
                                                     const CURI& target, bool overwrite,
                                                     IDoneListener* listener) {
  checkFileSystem(fileSystem, "CBackgroundOpThread::addMoveFileJob");
  return addJob(createObject<CMoveFileJob>(fileSystem, source, target, overwrite, listener));
}

P<IBackgroundOp> CBackgroundOpThread::addJob(const P<CJob>& job) {
  if (!job) throw CInvalidArgError("CBackgroundOpThread::addJob", "The job is null.");
  {
    CMutexLock lock(m_listMutex);
    m_jobs.push_back(job);
    ++m_jobCount;
  }
  m_workSignal.set();
  return job;
}

void CBackgroundOpThread::signalStop() {
  CThread::signalStop();
  m_workSignal.set();
}

int CBackgroundOpThread::getQueuedJobCount() {
  CMutexLock lock(m_listMutex);
  return m_jobCount;
}

void CBackgroundOpThread::runImpl() {
  while (checkContinue()) {
    P<CJob> job;
    {
      CMutexLock lock(m_listMutex);
      if (m_jobCount > 0) {
        job = std::move(m_jobs.front());
        m_jobs.pop_front();
        --m_jobCount;
      } else {
        // Reset while the list is locked: an add after this point sets the
        // signal again, so the wait below cannot miss it. A stop requested
        // before the reset would be lost with it: look at the request again.
        m_workSignal.reset();
        if (!checkContinue()) break;
      }
    }
    if (job) {
      job->execute();
    } else {
      m_workSignal.wait(-1);
    }
  }
  abortQueuedJobs();
}

void CBackgroundOpThread::abortQueuedJobs() {
  const CError abort{String(kAbortMessage)};
  for (;;) {
    P<CJob> job;
    {
      CMutexLock lock(m_listMutex);
      if (m_jobCount == 0) break;
      job = std::move(m_jobs.front());
      m_jobs.pop_front();
      --m_jobCount;
    }
    job->fail(abort);
  }
}

}  // namespace zel
