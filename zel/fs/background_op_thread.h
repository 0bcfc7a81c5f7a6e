// CBackgroundOpThread: the worker behind the background operations of a file
// system (IFileSystem::backgroundStore and its three siblings).
//
// Each add*Job call queues one job and returns it at once as the caller's
// P<IBackgroundOp>; the worker runs the jobs strictly in the order they were
// added, one at a time, on its own thread. A job's failure never escapes the
// worker: it is kept in the job and thrown by throwErrorIfFailed().
//
// Completion order inside a job: the error is stored, then the completion
// signal is set (from then on hasFinished() is true), then the done listener
// is told on the worker thread. A listener that throws is logged and
// otherwise ignored.
//
// Stopping (signalStop, stop, dropping the last reference): the job running
// at that moment runs to its end; every job still queued is completed as
// failed with "Background store operation aborted because CBackgroundOpThread
// needs to exit." (a CError without code, the same text for every kind of
// job), so no waiter hangs. Jobs added after the worker has left its loop
// stay queued until the thread is started again, or fail when the object is
// destroyed.
//
// Threading: the job list is guarded by m_listMutex, held only to add or take
// a job, never while one runs. m_workSignal is set whenever a job is added or
// a stop is requested; the worker resets it under the list mutex when it
// finds the list empty, so a job added afterwards sets it again and no
// wake-up is lost; after that reset it looks at the stop request once more,
// since a stop signalled just before the reset would otherwise be missed.
//
// Jobs hold counted references to the file system, the source stream and the
// listener they were given, until they are dropped. The source stream is read
// on the worker thread: the caller must leave it alone until the job has
// finished.
#pragma once

#include "zel/core/containers.h"
#include "zel/core/error.h"
#include "zel/core/export.h"
#include "zel/fs/error_background_op.h"
#include "zel/fs/file_system.h"
#include "zel/path/uri.h"
#include "zel/stream/stream.h"
#include "zel/core/mutex.h"
#include "zel/thread/signal.h"
#include "zel/thread/thread.h"

namespace zel {

class ZEL_API CBackgroundOpThread : public CThread {
 public:
  // One queued operation. Queued -> running -> finished; finished is final.
  class ZEL_API CJob : public CBase, public IBackgroundOp {
   public:
    explicit CJob(IDoneListener* listener);
    ~CJob() override;

    bool hasFinished() override;
    bool waitFinished(int timeoutMs) override;
    // Throws CBadStateError while the job has not finished.
    void throwErrorIfFailed() override;

    // Runs the work, keeps its error and completes the job. Never throws.
    void execute();
    // Completes the job as failed with error without running it.
    void fail(const CError& error);

   protected:
    // The job's work; throws on failure.
    virtual void run() = 0;

   private:
    void complete(P<CError> error);

    CMutex m_mutex;  // guards m_error and m_listener
    CSignal m_finished;
    P<CError> m_error;
    P<IDoneListener> m_listener;
  };

  // Writes length bytes of source to uri: createStream(uri, AccessReadWrite,
  // FlagTruncate, plus FlagFailIfAlreadyExists when overwrite is false),
  // copied in chunks of kChunkSize, then closed. A source that ends early
  // fails the job (CIOError UnexpectedEnd); what was written stays.
  class ZEL_API CStoreJob : public CJob {
   public:
    static constexpr int kChunkSize = 1 << 20;

    CStoreJob(IFileSystem* fileSystem, const CURI& uri, int64 length, IInStream* source,
              bool overwrite, IDoneListener* listener);
    ~CStoreJob() override;

   protected:
    void run() override;

   private:
    P<IFileSystem> m_fileSystem;
    CURI m_uri;
    int64 m_length;
    P<IInStream> m_source;
    bool m_overwrite;
  };

  // createFolder(uri, flags).
  class ZEL_API CCreateFolderJob : public CJob {
   public:
    CCreateFolderJob(IFileSystem* fileSystem, const CURI& uri, int flags, IDoneListener* listener);
    ~CCreateFolderJob() override;

   protected:
    void run() override;

   private:
    P<IFileSystem> m_fileSystem;
    CURI m_uri;
    int m_flags;
  };

  // deleteFile(uri, false): a read-only file is refused, as in the
  // synchronous call without force.
  class ZEL_API CDeleteFileJob : public CJob {
   public:
    CDeleteFileJob(IFileSystem* fileSystem, const CURI& uri, IDoneListener* listener);
    ~CDeleteFileJob() override;

   protected:
    void run() override;

   private:
    P<IFileSystem> m_fileSystem;
    CURI m_uri;
  };

  // moveFileOrFolder(source, target, overwrite).
  class ZEL_API CMoveFileJob : public CJob {
   public:
    CMoveFileJob(IFileSystem* fileSystem, const CURI& source, const CURI& target, bool overwrite,
                 IDoneListener* listener);
    ~CMoveFileJob() override;

   protected:
    void run() override;

   private:
    P<IFileSystem> m_fileSystem;
    CURI m_source;
    CURI m_target;
    bool m_overwrite;
  };

  // The thread is named kThreadName; start() it before or after adding jobs.
  CBackgroundOpThread();
  ~CBackgroundOpThread() override;

  static const char* const kThreadName;  // "zel.backgroundOps"
  // The error text of jobs that never ran because the worker stopped.
  static const char* const kAbortMessage;

  // fileSystem must not be null; source may only be null when length is 0.
  P<IBackgroundOp> addStoreJob(IFileSystem* fileSystem, const CURI& uri, int64 length,
                               IInStream* source, bool overwrite, IDoneListener* listener);
  P<IBackgroundOp> addCreateFolderJob(IFileSystem* fileSystem, const CURI& uri, int flags,
                                      IDoneListener* listener);
  P<IBackgroundOp> addDeleteFileJob(IFileSystem* fileSystem, const CURI& uri,
                                    IDoneListener* listener);
  P<IBackgroundOp> addMoveFileJob(IFileSystem* fileSystem, const CURI& source, const CURI& target,
                                  bool overwrite, IDoneListener* listener);

  // Queues a job of any kind.
  P<IBackgroundOp> addJob(const P<CJob>& job);

  // CThread::signalStop(), then wakes the worker.
  void signalStop() override;

  // Jobs queued and not yet taken by the worker.
  int getQueuedJobCount();

 protected:
  void runImpl() override;

 private:
  // Takes every queued job off the list and fails it with kAbortMessage.
  void abortQueuedJobs();

  CMutex m_listMutex;
  TList<P<CJob>> m_jobs;
  int m_jobCount = 0;
  CSignal m_workSignal;
};

}  // namespace zel
