// zel fs df: space on the server's volumes, as `df -h` shows it.
#include "fs.h"
#include "share_index.h"

namespace zeltool {

namespace {

struct SpaceRow {
  zel::String path;
  zel::int64 total = -1;  // -1: not known
  zel::int64 used = -1;
  zel::int64 free = -1;  // for the server's user
};

SpaceRow measure(zel::IFileSystem& fs, const CRemotePath& path) {
  SpaceRow row;
  row.path = path.written;
  row.free = onSubject(path.written, [&] { return fs.getFreeSpaceInFolder(path.uri); });
  if (const std::optional<VolumeSpace> space = readVolumeSpace(fs, path.share)) {
    row.total = space->total;
    row.used = space->total - space->free;
  }
  return row;
}

// As df: the part of the space a user can have that is in use, rounded up.
std::string usePercent(const SpaceRow& row) {
  if (row.used < 0 || row.free < 0 || row.used + row.free <= 0) return "-";
  const zel::int64 whole = row.used + row.free;
  return std::to_string((row.used * 100 + whole - 1) / whole) + "%";
}

int runSpace(CCommandContext& context) {
  std::vector<CRemotePath> paths = remoteOperands(context);
  zel::IFileSystem& fs = context.server();
  if (paths.empty()) paths.push_back(parseRemotePath("/"));
  std::vector<CRemotePath> expanded;
  for (const CRemotePath& path : paths) {
    if (!path.isShareList()) {
      expanded.push_back(path);
      continue;
    }
    for (const zel::String& share : onSubject(path.written, [&] { return listShares(fs); })) {
      expanded.push_back(path.child(share));
    }
  }
  std::vector<SpaceRow> rows;
  const int status = forEachPath(
      context, expanded, [&](const CRemotePath& path) { rows.push_back(measure(fs, path)); });
  if (context.out.json) {
    CJsonWriter json;
    json.beginArray();
    for (const SpaceRow& row : rows) {
      json.beginObject()
          .field("path", row.path)
          .bytesField("total", row.total)
          .bytesField("used", row.used)
          .bytesField("free", row.free)
          .endObject();
    }
    json.endArray();
    printOut(json.getText());
    return status;
  }
  CTable table({{"PATH", CTable::Left},
                {"TOTAL", CTable::Right},
                {"USED", CTable::Right},
                {"FREE", CTable::Right},
                {"USE%", CTable::Right}});
  for (const SpaceRow& row : rows) {
    const bool raw = context.out.rawBytes;
    table.addRow({toDisplay(row.path), formatSize(row.total, raw), formatSize(row.used, raw),
                  formatSize(row.free, raw), usePercent(row)});
  }
  printOut(table.format());
  return status;
}

}  // namespace

CommandDef fsSpaceCommand() {
  return {"df",
          "[REMOTE...]",
          "total, used and free space where REMOTE lies; no REMOTE: every share",
          "FREE is what the server's user may still write. TOTAL and USED come from a\n"
          "`zel serve` server; other servers show '-' there.\n",
          {bytesOption(), jsonOption()},
          0,
          -1,
          &runSpace};
}

}  // namespace zeltool
