// AssetFields: everything the engine's store keeps about one asset, one row
// of the asset table.
//
// Thread-safety: a plain value; each asset guards its own copy.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "zolvani/reference/ReferenceEngine.h"
#include "zolvani/subscription/Date.h"

namespace zolvani::reference {

struct AssetFields {
  std::string uuid, assetID, description, url;
  bool manifest = false;
  std::int32_t protectionType = 0;
  bool includeEncryptionKeys = false;
  std::int64_t maximumBitrate = 0;
  std::optional<Date> publishDate, expiryDate;
  double expiryAfterDownload = 0, expiryAfterPlay = 0;
  std::int32_t downloadLimit = 0;
  bool fastPlay = false;
  std::string userInfoJson;
  Date creationDate;
  AssetState state = AssetState::kCreated;
  double fraction = 0;
  std::uint64_t bytesDone = 0, bytesTotal = 0;
  std::optional<Date> downloadComplete;
  std::string localPath;      // relative to the data folder
  std::int64_t queuePos = 0;  // order in the download queue; 0 when not queued
  std::string etag, lastModified;
  std::int64_t errorCode = 0;
  std::string errorText;
  std::int64_t bandwidth = 0, segmentsDone = 0, segmentsTotal = 0;
  std::int64_t seq = 0;  // creation order
  // A queued asset waiting out transient failures: how many in a row, the
  // bytes it had at the last one, and when (seconds since 1970 on the
  // system clock) it may try again. Kept so that a restart does not retry
  // every waiting asset at once.
  std::int64_t retryFailures = 0;
  std::uint64_t retryBytes = 0;
  double retryNotBefore = 0;
};

}  // namespace zolvani::reference
