// zel fs ls and zel fs stat: what is on the server, as `ls -l` and `stat`
// show it.
#include <algorithm>

#include "fs.h"
#include "share_index.h"

namespace zeltool {

namespace {

struct Entry {
  zel::String name;
  zel::P<zel::IFileInfoBase> info;
};

bool isLink(zel::IFileInfoBase& info) {
  return info.getSymLinkType() != zel::IFileInfoBase::SymLinkNone;
}

// The owner's name, else the user ID where the server sent only that.
zel::String owner(zel::IFileInfoBase& info) {
  const zel::String name = info.getUnixUserName();
  if (!name.isEmpty()) return name;
  if (info.getCachedInfoMask() & zel::IFileInfoBase::CachedUnixUserID) {
    return zel::String::fromInt64(info.getUnixUserID());
  }
  return "-";
}

zel::String unixMode(zel::IFileInfoBase& info) {
  char text[16];
  std::snprintf(text, sizeof(text), "%04llo",
                static_cast<unsigned long long>(info.getUnixMode() & 07777));
  return text;
}

// The folder's entries sorted by name, or the entry itself when path names
// no folder.
std::vector<Entry> readEntries(zel::IFileSystem& fs, const CRemotePath& path) {
  return onSubject(path.written, [&] {
    std::vector<Entry> entries;
    zel::P<zel::IFileInfoBase> info = fs.getFileInfo(path.uri, false);
    const bool folder = info->getType() == zel::IFileInfoBase::TypeFolder;
    if (!folder || (isLink(*info) && !path.endsWithSlash)) {
      entries.push_back({path.uri.getName(), info});
      return entries;
    }
    zel::P<zel::IFolderContentsIterator> it = fs.getFolderContents(path.uri);
    while (it->nextItem()) entries.push_back({it->getItemName(), it->getItemInfo()});
    std::sort(entries.begin(), entries.end(),
              [](const Entry& a, const Entry& b) { return a.name < b.name; });
    return entries;
  });
}

void printEntries(const CCommandContext& context, std::vector<Entry>& entries) {
  if (context.out.json) {
    CJsonWriter json;
    json.beginArray();
    for (Entry& entry : entries) {
      zel::IFileInfoBase& info = *entry.info;
      json.beginObject().field("name", entry.name).field("type", typeName(info));
      json.bytesField("size", info.getSize()).field("modified", info.getDataModifiedTime());
      if (info.hasUnixInfo()) {
        json.field("mode", unixMode(info)).field("owner", owner(info));
      }
      if (isLink(info)) json.field("target", info.getSymLinkTargetPath());
      json.endObject();
    }
    json.endArray();
    printOut(json.getText());
    return;
  }
  CTable table({{"MODE", CTable::Left},
                {"OWNER", CTable::Left},
                {"SIZE", CTable::Right},
                {"MODIFIED", CTable::Left},
                {"NAME", CTable::Left}});
  for (Entry& entry : entries) {
    zel::IFileInfoBase& info = *entry.info;
    std::string name = toDisplay(entry.name);
    if (isLink(info)) name += " -> " + toDisplay(info.getSymLinkTargetPath());
    const bool folder = info.getType() == zel::IFileInfoBase::TypeFolder && !isLink(info);
    table.addRow({modeString(info), info.hasUnixInfo() ? toDisplay(owner(info)) : "-",
                  folder ? "-" : formatSize(info.getSize(), context.out.rawBytes),
                  formatLocalTime(info.getDataModifiedTime()), name});
  }
  printOut(table.format());
}

int runList(CCommandContext& context) {
  const CRemotePath path =
      context.args.getOperands().empty() ? parseRemotePath("/") : remoteOperand(context, 0);
  zel::IFileSystem& fs = context.server();
  std::vector<Entry> entries = readEntries(fs, path);
  printEntries(context, entries);
  return ExitSuccess;
}

int runStat(CCommandContext& context) {
  const CRemotePath path = remoteOperand(context, 0);
  zel::IFileSystem& fs = context.server();
  zel::P<zel::IFileInfoBase> info =
      onSubject(path.written, [&] { return fs.getFileInfo(path.uri, false); });
  const zel::String name = path.isShareList() ? zel::String("/") : path.uri.getName();
  if (context.out.json) {
    CJsonWriter json;
    json.beginObject()
        .field("name", name)
        .field("type", typeName(*info))
        .bytesField("size", info->getSize())
        .field("modified", info->getDataModifiedTime())
        .field("created", info->getCreatedTime())
        .field("readOnly", info->isReadOnly())
        .field("hidden", info->isHidden());
    if (info->hasUnixInfo()) {
      json.field("mode", unixMode(*info))
          .field("owner", owner(*info))
          .field("group", info->getUnixGroupName());
    }
    if (isLink(*info)) json.field("target", info->getSymLinkTargetPath());
    json.endObject();
    printOut(json.getText());
    return ExitSuccess;
  }
  printLine("name", name);
  printLine("type", typeName(*info));
  printLine("size", formatSize(info->getSize(), context.out.rawBytes) +
                        (context.out.rawBytes || info->getSize() < 1024
                             ? std::string(" bytes")
                             : " (" + std::to_string(info->getSize()) + " bytes)"));
  printLine("mode", modeString(*info));
  if (info->hasUnixInfo()) {
    printLine("owner", owner(*info) + ":" + info->getUnixGroupName());
  }
  printLine("modified", formatLocalTime(info->getDataModifiedTime()));
  printLine("created", formatLocalTime(info->getCreatedTime()));
  printLine("read-only", info->isReadOnly() ? "yes" : "no");
  if (isLink(*info)) printLine("link to", info->getSymLinkTargetPath());
  return ExitSuccess;
}

}  // namespace

CommandDef fsListCommand() {
  return {"ls",
          "[REMOTE]",
          "list a folder (sorted, links marked); '/' or nothing: the shares",
          "Columns: mode, owner, size, time of the last change, name ('name -> target'\n"
          "for links). Sizes are rounded up as ls -lh shows them.\n",
          {bytesOption(), jsonOption()},
          0,
          1,
          &runList};
}

CommandDef fsStatCommand() {
  return {"stat",
          "REMOTE",
          "information on a file or folder (links are not followed)",
          nullptr,
          {bytesOption(), jsonOption()},
          1,
          1,
          &runStat};
}

}  // namespace zeltool
