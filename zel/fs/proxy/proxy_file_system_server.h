// CProxyFileSystemServer: serves one connection of the cross-process file
// system (wire format in proxy_protocol.h). It publishes chosen areas
// (shares) of local file systems, runs the client's requests against them,
// keeps what it opened for the client (streams, file infos, range locks, meta
// modifiers, write barriers, background operations) in tables of handles, and
// forwards the login questions of the served file systems to the client.
//
// Requests: handleMessage() reads the funcID, looks it up in the handler map
// and, when found, writes responseType 1 and runs the handler, which reads
// its arguments and writes its results. An unknown funcID (42 and 43 are
// unassigned) and every exception become an error response (responseType 0
// and the error, storeError) that replaces whatever was written; the
// connection stays usable. Bytes after a request's arguments are ignored.
//
// Shares: addShare(selector, fileSystem) publishes the URIs that selector
// matches, passed to fileSystem unchanged. addShare(selector, fileSystem,
// root) publishes them rebased: the URI's segments after the selector's path
// (CURISelector::matches with a remainder) are appended one by one to root,
// so the client sees "file:///backup/x" where the disk has
// "file:///srv/store/x". Shares are tried in the order they were added; the
// first match wins. removeShare() removes every share with an equal
// selector; handles already opened through it stay valid (they hold their
// objects), new requests for its URIs are refused.
//
// The client never sees the server's own paths behind a rebasing share
// (CShareMapping): URIs the server hands back (getVolumeRootPath,
// createUniqueFilename, createUniqueFolderName) are mapped into the
// client's namespace, a volume root outside the share root being answered
// with the share's own prefix; the URI of a login question is mapped the
// same way (a URI outside the share root becomes the share's prefix), and
// the areas of login data are mapped both ways (CShareMapping::areaToClient
// and areaToServer). Errors of a request that reached a rebasing share -
// error responses and the errors backgroundOpsFinalize reports - have every
// occurrence of the root in their messages and parameters replaced by the
// client's prefix, and parameters that still name a server location (a
// native absolute path, or a URI that no share selects and that the client
// did not send itself) are dropped. Link targets in file information are
// mapped the same way; an absolute one that cannot be mapped is sent empty.
//
// Confining URIs (readAndConvertAbsoluteURI / convertAbsoluteURI): the text is
// parsed and normalised, the decoded path vetted by validateAndSecurePath
// (before any share is matched, so "/../" is refused with "Invalid path."
// even where it would stay inside), and a segment holding an encoded
// separator or NUL character is refused the same way. A URI that no share
// selects fails with "Proxy URI does not reference a shared filesystem area."
// (parameter "uri") before any file system is touched. Then, for shares whose
// root is a folder on a local disk (the root given, or for an identity share
// a "file" selector with a local authority and a path), each location is
// checked against symbolic links that lead out of the share
// (CShareConfinement, see share_confinement.h, which also documents the race
// between check and use); a location that leaves the share is refused with
// CFileSystemError ProblemAccessDenied. Shares of other kinds (wildcard or
// foreign selectors) are confined by their URIs alone. The root of a share
// can never be deleted, moved, replaced or be the new entry of a link.
//
// Which kind of check each function makes (see CShareConfinement::Target):
// operations that remove, rename or create the entry named (deleteFile,
// deleteSymLink, deleteEmptyFolder, unlinkFolder, moveFile and
// backgroundMoveFileBegin on both ends, backgroundDeleteFileBegin, the new
// name of every link) check it as ChangesEntry; fileInfoOpen, metaModifierOpen
// and getNativeMetaData follow their followSymLinks argument; everything else
// (opening, creating, listing, copying - whose target is opened through a
// final link -, existence checks) follows links. A meta modifier is checked
// again when its changes are applied, since it works on the path.
//
// Link functions: createFileHardLink and createFolderHardLink resolve both
// URIs into one file system (verifyOnSameFileSystem). A file's hard-link
// target is checked without following a final link, as Linux link(2) does
// (the new name is for the entry itself), so a target reached through a link
// leading out of the share is refused, while a hard link to a link is another
// link, caught when used. A folder's hard link (a junction) is followed
// whenever it is used, so its target is checked following links. The
// symbolic-link functions resolve and check their target the same way when
// its text is an absolute URI (one with an authority or an absolute path). A
// relative target, a URI with a rootless path such as "file:../x" (a text
// without a scheme, such as "../x", is taken as that rootless URI of the
// link's scheme), is passed on unchanged: it is checked by nothing here, and
// any later access through the link is caught by the confinement check. The
// local file system CFileSystem refuses rootless URIs itself.
//
// Links that lead out of a share: an operation that would follow such a link
// is refused (the confinement check above: fileExists, folderExists,
// pathExists, getFileInfo with followSymLinks, opening, listing through it
// ...), and information about the link itself (getFileInfo without
// followSymLinks, the entries of getFolderContents) describes the link and
// never its target: its type is sent as TypeUnknown and its link type as
// SymLinkUnknownTarget whatever lies outside, so a client cannot tell an
// existing target from a missing one, nor a folder from a file. The link's
// other items (times, size, owner, its own target text) are the link's own.
//
// Information items: fileInfoOpen and the entries of getFolderContents carry
// the items the information object gathered (its cached-info mask) and,
// always, the two has*Info flags; fileInfoGet carries all items.
//
// Handles: one int64 counter per server, starting at 1 and shared by the six
// tables, so handles never collide and are never reused on a connection. A
// lookup of an unknown handle fails with a CError (no code) whose message is
// the table's prefix and the number ("Invalid proxy stream ID: 7");
// streamClose looks the handle up first, the other close and release
// functions silently ignore unknown handles. releaseAllHandles() (also run by
// serve() when the connection ends, and by the destructor) drops all six
// tables, releasing what they held.
//
// Handle limit: a connection holds at most getMaxOpenHandles() handles, all
// six tables together (setMaxOpenHandles, default kDefaultMaxOpenHandles). A
// request that would register one more fails, before it does anything, with
// CFileSystemError ProblemOutOfSpace, message "Too many open handles on this
// proxy connection (the limit is N); close some first." and the parameter
// "maxOpenHandles"; the connection stays usable and closing handles makes
// room again.
//
// Requests are all or nothing towards the tables: a request that ends as an
// error response (an exception, or a response replaced because it is above
// the frame limit) leaves nothing registered - what it registered is
// released again - and loses no report of a background operation: finished
// operations are forgotten only once their report is in a response that is
// sent. backgroundOpsFinalize reports as many finished operations as fit in
// one frame and leaves the rest registered for the next call; a report that
// cannot fit even alone is sent with its error replaced by a short one (the
// same domain, code and file-system problem, message "The error of the
// background operation is too large to send (N bytes).").
//
// Count arguments: byte counts and lengths that cannot be negative are
// refused with CInvalidArgError naming the handler (streamReadLax and
// streamReadAvailable counts, streamSetLength, the data counts of streamWrite
// and backgroundStoreBegin, the start and size of streamLockRange); the
// stream is not touched.
//
// Login callbacks: the server's CLoginManager is set (setLoginManager) on
// every file system shared by addShare. While a handler runs, the manager is
// bound to this connection and to the thread running the handler; a served
// file system that asks for login data (getLoginInfo) or reports new data
// (updateLoginInfo) on that thread gets a callback frame sent to the client
// and the client's answer, in the middle of the request. Because one file
// system may be shared by several servers (one per connection), the calls
// are routed by thread: whichever server's manager the file system holds, a
// question goes to the connection whose request is running on the calling
// thread. Asked on any other thread (a background worker) or outside a
// request, the manager throws CBadStateError.
//
// Limits and decoding of hostile input: frames above the frame limit
// (setMaxFrameLength, default kDefaultMaxFrameLength) are refused before any
// allocation and end the connection; bulk transfers are bounded by
// kMaxDataChunk and by the bytes really present in the request; a read
// allocates at most what the stream can still deliver when it knows its
// length. A response larger than the frame limit is replaced by an error
// response (the client would refuse the frame); what the request did (a
// handle registered, a file written) stays done.
//
// Serving: handleMessageIfAvailable() handles one request if a frame has
// started to arrive (never waits for the first byte); handleNextMessage()
// waits for one; serve() loops until the connection ends. A clean end
// between frames ends serve() quietly; a client that went away inside a
// frame or while its response was being sent (the end of the connection,
// reset, broken pipe) is a normal end too and is logged as information
// ("CProxyFileSystemServer: the client disconnected; serving ends."); a
// frame-length violation or any other failure is logged as an error
// ("CProxyFileSystemServer: connection failed; serving ends.") and ends it
// too. serve() then closes the connection and releases all handles.
//
// Stopping: requestStop() (any thread) makes a request that waits on a
// served stream give up. Waits that could last without limit are served as
// a series of waits of at most kStopPollMs, between which the server looks
// at the stop request and at whether the client's end of the connection has
// ended: streamWaitReadable with a time-out above kStopPollMs or none,
// streamIsEnd, and streamReadLax on a stream of unknown length (read as
// waits for readability and reads of what is available). Such a request then
// fails with CIOError StreamClosed. Whoever stops a server closes its
// connection as well, which ends the reads and writes of the serving thread;
// a call of a served file system that never returns cannot be cut short
// (CProxyFileSystemService gives up waiting for it).
//
// Serving costs: the serving functions block in the read of the next frame
// itself and read every request into one message and build every response
// in another, both kept per connection. The existence checks (fileExists,
// folderExists, pathExists) on a share of the local file system itself
// (CFileSystem, not a class derived from it) whose root is confined are
// answered by the confinement check, which has just resolved the entry
// (CShareConfinement::Found), rather than by the file system, which would
// look the same path up once more; where the check cannot tell what it
// found (Windows), the file system is asked. Read results are read into one
// page-aligned buffer kept per connection (handleMessage(), which hands its
// response to the caller, gives each result a buffer of its own). Where the
// stream read is a local file with a descriptor and the connection can send
// from a file (a Unix socket), the response frame is sent first with the
// count the file can deliver from its size and position, and the data
// follows straight from the page cache (sendfile); should the file deliver
// fewer bytes (it shrank meanwhile), the frame cannot be completed: the
// connection is closed and the serving function throws CIOError
// WriteFailed. Small reads (below kFileSendMinimum) take the copying path,
// which sends them in one call.
//
// Threading: one thread serves a server object; requests on a connection are
// strictly sequential. Background operations run on the file systems' own
// workers and are only asked hasFinished() by backgroundOpsFinalize.
#pragma once

#include <atomic>
#include <exception>

#include "zel/core/base.h"
#include "zel/core/containers.h"
#include "zel/core/export.h"
#include "zel/fs/file_system.h"
#include "zel/fs/proxy/proxy_message.h"
#include "zel/fs/proxy/proxy_protocol.h"
#include "zel/fs/proxy/share_confinement.h"
#include "zel/fs/proxy/share_mapping.h"
#include "zel/ipc/connection.h"
#include "zel/path/uri.h"
#include "zel/fs/uri_selector.h"
#include "zel/stream/data_stream.h"

namespace zel {

class CConnectionOutStream;

class ZEL_API CProxyFileSystemServer : public CBase, public CProxyFileSystemBase {
 public:
  // Sends the login questions of the served file systems to the client (see
  // the file comment). Created by the server; usable from any thread, though
  // only the thread running a request gets an answer.
  class ZEL_API CLoginManager : public CBase, public IFileSystemLoginManager {
   public:
    CLoginManager();
    ~CLoginManager() override;

    // Callback type 2: the client's login data for uri, and the area it
    // applies to in *selector (when not null).
    CProps getLoginInfo(const CURI& uri, CURISelector* selector) override;
    // Callback type 3.
    void updateLoginInfo(const CURISelector& selector, const CProps& props) override;

    // The first words of the error for an answer of another type; the
    // number follows. Both callbacks use this text.
    static const char* const kUnexpectedAnswerMessage;

   private:
    friend class CProxyFileSystemServer;
    class CBinding;

    // The manager bound on the calling thread (any server's), or throws.
    static CLoginManager& activeOnThisThread();
    // Sends request (a response frame of type 2 or 3) and reads the answer
    // frame; returns its in-stream positioned after responseType 1.
    P<CDataInStream> exchange(CProxyFileSystemMessage& request);

    CProxyFileSystemServer* m_server = nullptr;  // while bound
    IInStream* m_in = nullptr;
    IOutStream* m_out = nullptr;
    int m_maxFrameLength = kDefaultMaxFrameLength;
  };

  // The result of resolving a client URI: the share's file system and the
  // URI inside it, with what the confinement check and the mapping of
  // results back to the client need.
  struct TargetLoc {
    P<IFileSystem> fileSystem;
    CURI uri;
    // Its decoded segments below the share's selector path.
    TArray<String> remainder;
    // Index of the share in the server's list at the time of resolving.
    int shareIndex = -1;
    // Null for an identity share.
    P<CShareMapping> mapping;
  };

  struct StreamRecord {
    P<IIOStream> stream;
    P<IFileSystem> fileSystem;
  };

  struct FileInfoRecord {
    P<IFileInfoBase> info;
  };

  using Handler = void (*)(CProxyFileSystemServer& server, CDataInStream& in, CDataOutStream& out);

  // Serves connection, which must not be null.
  explicit CProxyFileSystemServer(IConnection* connection);
  ~CProxyFileSystemServer() override;

  CProxyFileSystemServer(const CProxyFileSystemServer&) = delete;
  CProxyFileSystemServer& operator=(const CProxyFileSystemServer&) = delete;

  // Identity share: selected URIs reach fileSystem unchanged.
  void addShare(const CURISelector& selector, IFileSystem* fileSystem);
  // Rebasing share: the remainder of a selected URI is appended to root.
  void addShare(const CURISelector& selector, IFileSystem* fileSystem, const CURI& root);
  void removeShare(const CURISelector& selector);

  // The largest request frame accepted, and the largest response sent; at
  // least 64 bytes (smaller values are raised to that).
  void setMaxFrameLength(int length);
  int getMaxFrameLength() const { return m_maxFrameLength; }

  // The most handles one connection holds (see the file comment); at least
  // 1 (smaller values are raised to that). Lowering it below what is open
  // keeps what is open and refuses new handles until enough are closed.
  void setMaxOpenHandles(int count);
  int getMaxOpenHandles() const { return m_maxOpenHandles; }
  // A backup client holds a few streams, infos and locks at a time, plus the
  // background operations it started since the last finalize (polled every
  // 50 ms): 1024 leaves it ample room, while bounding what one connection
  // can pin: at most 1024 server objects, of which open streams hold file
  // descriptors - as many as the usual soft descriptor limit of a Linux
  // process, so a server serving several clients should raise that limit or
  // lower this one.
  static constexpr int kDefaultMaxOpenHandles = 1024;

  // Asks a request that waits on a served stream to give up (see the file
  // comment); safe from any thread, and final.
  void requestStop();
  bool isStopRequested() const { return m_stopRequested.load(); }
  // The longest single wait on a served stream between two looks at the
  // stop request.
  static constexpr int kStopPollMs = 100;

  // Handles one request if a frame has begun to arrive: false at once when
  // no byte is pending; otherwise reads the rest (blocking), handles it,
  // writes the response and returns true. Connection failures throw.
  bool handleMessageIfAvailable();
  // Waits for the next request, handles it and writes the response. False
  // when the connection ended cleanly before a new frame began; a frame cut
  // off, a frame above the limit and write failures throw.
  bool handleNextMessage();
  // handleNextMessage() until the connection ends; see the file comment.
  // Never throws.
  void serve();

  // The dispatch: the response to one request payload.
  P<CProxyFileSystemMessage> handleMessage(CProxyFileSystemMessage& request);

  // Reads below this many bytes are never sent from a file (see above).
  static constexpr int kFileSendMinimum = 64 * 1024;

  // Drops every open handle (all six tables).
  void releaseAllHandles();
  // Open handles in all tables together.
  int getOpenHandleCount() const;

  const P<CLoginManager>& getLoginManager() const { return m_loginManager; }

  // The message prefixes of the handle tables.
  static const char* const kInvalidStreamMessage;
  static const char* const kInvalidFileInfoMessage;
  static const char* const kInvalidLockMessage;
  static const char* const kInvalidMetaModifierMessage;
  static const char* const kInvalidWriteBarrierMessage;
  static const char* const kInvalidBackgroundOpMessage;

 protected:
  struct CShare;

  // Reads a URI argument (a string) and resolves it; see the file comment.
  TargetLoc readAndConvertAbsoluteURI(CDataInStream& in);
  TargetLoc convertAbsoluteURI(const CURI& uri);
  // The resolution of both, without noting the URI as the client's.
  TargetLoc resolveURI(CURI uri);
  // Fails with "Proxy URIs must be on same filesystem for this
  // functionality." when a and b name different file systems.
  static void verifyOnSameFileSystem(const TargetLoc& a, const TargetLoc& b);
  // Vets the decoded path of a URI. backslashIsSeparator turns "\" into "/"
  // first (Windows, where both separate). Refused, as CFileSystemError
  // ProblemUnsupported whose cause is CError "Invalid path." (no code,
  // parameter "path"): "/../" and "//.../" anywhere (a trailing "/.." counts),
  // any segment made only of dots and blanks other than "." (Windows trims
  // trailing dots and blanks from names, so "... " can mean ".."), an empty
  // segment inside the path ("a//b"), and NUL characters. On return path
  // holds the path with normalised separators.
  static void validateAndSecurePath(String& path, bool backslashIsSeparator);
  // validateAndSecurePath() of a path whose separators are "/" already.
  static void vetPath(const String& path);
  // The confinement check of loc for an operation of the given kind; nothing
  // for shares without a local root.
  void confine(const TargetLoc& loc, CShareConfinement::Target target);
  // A URI returned by the file system of loc, in the client's namespace.
  CURI mapToClient(const TargetLoc& loc, const CURI& result);
  // Information on the entry components (below the share's root) of loc's
  // share as the client may see it: a link that leads out of the share
  // described as the link alone, link targets mapped (see the file
  // comment). followed: links were followed (and so stayed inside).
  P<IFileInfoBase> clientInfo(const TargetLoc& loc, const TArray<String>& components,
                              const P<IFileInfoBase>& info, bool followed);
  // Whether the running request's client sent value: one of its texts, or
  // the normalised text or decoded path of one of its URIs (those texts
  // among them that are URIs).
  bool isClientText(const String& value) const;
  // error as the client may see it after a request that reached the shares
  // of mappings (see the file comment).
  P<CError> clientError(const CError& error, const TArray<P<CShareMapping>>& mappings) const;
  // Waits up to timeoutMs (negative: without limit) until stream is
  // readable, in waits of at most kStopPollMs; throws CIOError StreamClosed
  // when a stop is requested or the client's end has ended meanwhile.
  bool waitReadableWatching(IInStream& stream, int timeoutMs);

  // The handle tables.
  int64 addStream(IIOStream* stream, IFileSystem* fileSystem);
  StreamRecord& getStream(int64 id);
  bool removeStream(int64 id);
  int64 addFileInfo(IFileInfoBase* info);
  FileInfoRecord& getFileInfoRecord(int64 id);
  bool removeFileInfo(int64 id);
  int64 addLock(IStreamLock* lock);
  P<IStreamLock> getLock(int64 id);
  bool removeLock(int64 id);
  int64 addMetaModifier(IFileMetaModifier* modifier);
  P<IFileMetaModifier> getMetaModifier(int64 id);
  bool removeMetaModifier(int64 id);
  int64 addWriteBarrier(IWriteBarrier* barrier);
  P<IWriteBarrier> getWriteBarrier(int64 id);
  bool removeWriteBarrier(int64 id);
  int64 addBackgroundOp(IBackgroundOp* op);
  P<IBackgroundOp> getBackgroundOp(int64 id);
  bool removeBackgroundOp(int64 id);

  // responseType 0 and the exception as a stored error.
  static void writeErrorResponse(CDataOutStream& out, std::exception& e);

  // Attaches data as the response's bulk tail (read results).
  void setResponseBulk(const TConstBufferSlice<unsigned char>& data) { m_responseBulk = data; }

  // The handlers, one per FuncID.
  static void handler_createFolder(CProxyFileSystemServer&, CDataInStream&, CDataOutStream&);
  static void handler_ensureFolderExists(CProxyFileSystemServer&, CDataInStream&, CDataOutStream&);
  static void handler_ensureFileExists(CProxyFileSystemServer&, CDataInStream&, CDataOutStream&);
  static void handler_createFileHardLink(CProxyFileSystemServer&, CDataInStream&, CDataOutStream&);
  static void handler_createFolderHardLink(CProxyFileSystemServer&, CDataInStream&,
                                           CDataOutStream&);
  static void handler_createFileSymLink(CProxyFileSystemServer&, CDataInStream&, CDataOutStream&);
  static void handler_createFolderSymLink(CProxyFileSystemServer&, CDataInStream&, CDataOutStream&);
  static void handler_fileExists(CProxyFileSystemServer&, CDataInStream&, CDataOutStream&);
  static void handler_folderExists(CProxyFileSystemServer&, CDataInStream&, CDataOutStream&);
  static void handler_pathExists(CProxyFileSystemServer&, CDataInStream&, CDataOutStream&);
  static void handler_isFolderEmpty(CProxyFileSystemServer&, CDataInStream&, CDataOutStream&);
  static void handler_deleteFile(CProxyFileSystemServer&, CDataInStream&, CDataOutStream&);
  static void handler_deleteSymLink(CProxyFileSystemServer&, CDataInStream&, CDataOutStream&);
  static void handler_deleteEmptyFolder(CProxyFileSystemServer&, CDataInStream&, CDataOutStream&);
  static void handler_unlinkFolder(CProxyFileSystemServer&, CDataInStream&, CDataOutStream&);
  static void handler_getVolumeRootPath(CProxyFileSystemServer&, CDataInStream&, CDataOutStream&);
  static void handler_createUniqueFilename(CProxyFileSystemServer&, CDataInStream&,
                                           CDataOutStream&);
  static void handler_createUniqueFolderName(CProxyFileSystemServer&, CDataInStream&,
                                             CDataOutStream&);
  static void handler_moveFile(CProxyFileSystemServer&, CDataInStream&, CDataOutStream&);
  static void handler_copyFile(CProxyFileSystemServer&, CDataInStream&, CDataOutStream&);
  static void handler_getFreeSpaceInFolder(CProxyFileSystemServer&, CDataInStream&,
                                           CDataOutStream&);
  static void handler_streamOpen(CProxyFileSystemServer&, CDataInStream&, CDataOutStream&);
  static void handler_subDataStreamOpen(CProxyFileSystemServer&, CDataInStream&, CDataOutStream&);
  static void handler_streamGetLength(CProxyFileSystemServer&, CDataInStream&, CDataOutStream&);
  static void handler_streamGetPosition(CProxyFileSystemServer&, CDataInStream&, CDataOutStream&);
  static void handler_streamSeek(CProxyFileSystemServer&, CDataInStream&, CDataOutStream&);
  static void handler_streamClose(CProxyFileSystemServer&, CDataInStream&, CDataOutStream&);
  static void handler_streamReadLax(CProxyFileSystemServer&, CDataInStream&, CDataOutStream&);
  static void handler_streamReadAvailable(CProxyFileSystemServer&, CDataInStream&, CDataOutStream&);
  // The body of both reads; available selects readAvailable over readLax.
  static void handler_streamReadInternal(CProxyFileSystemServer&, CDataInStream&, CDataOutStream&,
                                         bool available);
  static void handler_streamWaitReadable(CProxyFileSystemServer&, CDataInStream&, CDataOutStream&);
  static void handler_streamIsEnd(CProxyFileSystemServer&, CDataInStream&, CDataOutStream&);
  static void handler_streamIsEnd_NonBlocking(CProxyFileSystemServer&, CDataInStream&,
                                              CDataOutStream&);
  static void handler_streamWrite(CProxyFileSystemServer&, CDataInStream&, CDataOutStream&);
  static void handler_streamFlush(CProxyFileSystemServer&, CDataInStream&, CDataOutStream&);
  static void handler_fileInfoOpen(CProxyFileSystemServer&, CDataInStream&, CDataOutStream&);
  static void handler_fileInfoGet(CProxyFileSystemServer&, CDataInStream&, CDataOutStream&);
  static void handler_fileInfoClose(CProxyFileSystemServer&, CDataInStream&, CDataOutStream&);
  static void handler_getFolderContents(CProxyFileSystemServer&, CDataInStream&, CDataOutStream&);
  static void handler_getNativeMetaData(CProxyFileSystemServer&, CDataInStream&, CDataOutStream&);
  static void handler_streamCreateWriteBarrier(CProxyFileSystemServer&, CDataInStream&,
                                               CDataOutStream&);
  static void handler_streamSetLength(CProxyFileSystemServer&, CDataInStream&, CDataOutStream&);
  static void handler_writeBarrierRelease(CProxyFileSystemServer&, CDataInStream&, CDataOutStream&);
  static void handler_backgroundStoreBegin(CProxyFileSystemServer&, CDataInStream&,
                                           CDataOutStream&);
  static void handler_backgroundCreateFolderBegin(CProxyFileSystemServer&, CDataInStream&,
                                                  CDataOutStream&);
  static void handler_backgroundMoveFileBegin(CProxyFileSystemServer&, CDataInStream&,
                                              CDataOutStream&);
  static void handler_backgroundDeleteFileBegin(CProxyFileSystemServer&, CDataInStream&,
                                                CDataOutStream&);
  static void handler_backgroundOpsFinalize(CProxyFileSystemServer&, CDataInStream&,
                                            CDataOutStream&);
  static void handler_streamLockRange(CProxyFileSystemServer&, CDataInStream&, CDataOutStream&);
  static void handler_lockRelease(CProxyFileSystemServer&, CDataInStream&, CDataOutStream&);
  static void handler_getFileSectorSize(CProxyFileSystemServer&, CDataInStream&, CDataOutStream&);
  static void handler_metaModifierOpen(CProxyFileSystemServer&, CDataInStream&, CDataOutStream&);
  static void handler_metaModifierApplyCachedChanges(CProxyFileSystemServer&, CDataInStream&,
                                                     CDataOutStream&);
  static void handler_metaModifierSetCreatedTime(CProxyFileSystemServer&, CDataInStream&,
                                                 CDataOutStream&);
  static void handler_metaModifierSetDataModifiedTime(CProxyFileSystemServer&, CDataInStream&,
                                                      CDataOutStream&);
  static void handler_metaModifierSetIndexable(CProxyFileSystemServer&, CDataInStream&,
                                               CDataOutStream&);
  static void handler_metaModifierSetHidden(CProxyFileSystemServer&, CDataInStream&,
                                            CDataOutStream&);
  static void handler_metaModifierSetReadOnly(CProxyFileSystemServer&, CDataInStream&,
                                              CDataOutStream&);
  static void handler_metaModifierSetWindowsAttributes(CProxyFileSystemServer&, CDataInStream&,
                                                       CDataOutStream&);
  static void handler_metaModifierSetUnixMode(CProxyFileSystemServer&, CDataInStream&,
                                              CDataOutStream&);
  static void handler_metaModifierClose(CProxyFileSystemServer&, CDataInStream&, CDataOutStream&);
  static void handler_getAccountOrUserNameUsedForAccess(CProxyFileSystemServer&, CDataInStream&,
                                                        CDataOutStream&);
  static void handler_quickCheckFolderAccessible(CProxyFileSystemServer&, CDataInStream&,
                                                 CDataOutStream&);

 private:
  // A file range that follows the response frame's payload on the wire.
  struct FileTail {
    P<IIOStream> stream;  // keeps the descriptor open until it is sent
    int64 handle = -1;
    int64 offset = 0;
    int64 count = 0;
  };

  void initHandlerMap();
  // Whether the function registers a handle when it succeeds.
  static bool registersHandle(int funcID);
  // Throws the handle-limit error when no handle can be registered.
  void checkHandleRoom() const;
  // The next handle, counted as registered by the running request.
  int64 takeHandle();
  // The add, get and remove steps shared by the six tables.
  template <class Table, class Record>
  int64 registerIn(Table& table, Record record);
  template <class Table>
  auto findIn(Table& table, int64 id, const char* prefix) -> decltype(*table.lookup(id));
  template <class Table>
  bool removeFrom(Table& table, int64 id);
  // Removes id from every table.
  void forgetHandle(int64 id);
  // Records the mapping of a handle's share as one the request reached.
  void noteHandleMapping(int64 id);
  void noteMapping(const P<CShareMapping>& mapping);
  // Ends the running request as an error response.
  void failRequest(CProxyFileSystemMessage& response, std::exception& e);
  // Throws when a stop is requested or the client's end has ended.
  void checkAbandoned();
  // readLax on a stream of unknown length, as waits for readability and
  // reads of what is at hand (see the file comment).
  int readWatching(IInStream& stream, unsigned char* buffer, int bytes);
  // The bytes of the response payload written so far.
  int64 responseBytes(CDataOutStream& out) const { return out.getPosition() - m_responseStart; }
  // The body of handleMessage: fills response. serving: the response is
  // sent before the next request is read (per-connection buffers and file
  // tails may be used).
  void handleInto(CProxyFileSystemMessage& request, CProxyFileSystemMessage& response,
                  bool serving);
  // Writes m_response and its file tail, if any.
  void sendResponse();
  void addShareInternal(const CURISelector& selector, IFileSystem* fileSystem, const CURI& root,
                        bool rebase);
  // Reads one argument URI, resolves and confines it.
  TargetLoc readTarget(CDataInStream& in, CShareConfinement::Target target);
  // readTarget for an existence check; found receives what the confinement
  // check found where it answers for the share's file system, else
  // FoundUnknown.
  TargetLoc readExistenceTarget(CDataInStream& in, CShareConfinement::Found& found);
  // Reads two argument URIs, resolves them into one file system and confines
  // them.
  void readTwoTargets(CDataInStream& in, CShareConfinement::Target first,
                      CShareConfinement::Target second, TargetLoc& a, TargetLoc& b);
  // Both kinds of symbolic link.
  static void createSymLink(CProxyFileSystemServer& server, CDataInStream& in, bool folder);
  // Both kinds of hard link.
  static void createHardLink(CProxyFileSystemServer& server, CDataInStream& in, bool folder);

  P<IConnection> m_connection;
  P<IInStream> m_in;
  P<IOutStream> m_out;
  int m_maxFrameLength = kDefaultMaxFrameLength;
  int m_maxOpenHandles = kDefaultMaxOpenHandles;
  std::atomic<bool> m_stopRequested{false};

  TMap<int, Handler> m_handlers;
  TArray<P<CShare>> m_shares;

  int64 m_nextHandle = 1;
  TMap<int64, StreamRecord> m_streams;
  TMap<int64, FileInfoRecord> m_fileInfos;
  TMap<int64, P<IStreamLock>> m_locks;
  TMap<int64, P<IFileMetaModifier>> m_metaModifiers;
  TMap<int64, P<IWriteBarrier>> m_writeBarriers;
  TMap<int64, P<IBackgroundOp>> m_backgroundOps;
  // The mapping of every handle opened through a rebasing share.
  TMap<int64, P<CShareMapping>> m_handleMappings;

  // What the running request did: the handles it registered, the finished
  // background operations its response reports, the rebasing shares it
  // reached, and the location texts and URIs the client sent.
  TArray<int64> m_requestRegistered;
  TArray<int64> m_requestReported;
  TArray<P<CShareMapping>> m_requestMappings;
  TArray<String> m_requestClientTexts;
  TArray<CURI> m_requestClientURIs;
  int64 m_responseStart = 0;

  P<CLoginManager> m_loginManager;
  TConstBufferSlice<unsigned char> m_responseBulk;

  // Per-connection state of the serving functions (see the file comment).
  CConnectionOutStream* m_connectionOut = nullptr;  // m_out, when it is one
  P<CProxyFileSystemMessage> m_request;
  P<CProxyFileSystemMessage> m_response;
  P<TBuffer<unsigned char>> m_readBuffer;
  bool m_serving = false;
  FileTail m_fileTail;
};

}  // namespace zel
