// Exported constants: notification names and their user-information keys,
// user-defaults keys, status values, and the asset-data and server keys. Each
// constant's value is the system's own text.
#pragma once

#include <cstdint>
#include <string_view>

namespace zolvani {

// Notifications the manager posts.
inline constexpr std::string_view kSubscriptionManagerStatusDidChangeNotification =
    "kSubscriptionManagerStatusDidChangeNotification";
inline constexpr std::string_view kSubscriptionManagerAssetAddedNotification =
    "kSubscriptionManagerAssetAddedNotification";
inline constexpr std::string_view kSubscriptionManagerAssetDeferredNotification =
    "kSubscriptionManagerAssetDeferredNotification";
inline constexpr std::string_view kSubscriptionManagerAssetDeletedNotification =
    "kSubscriptionManagerAssetDeletedNotification";
inline constexpr std::string_view kSubscriptionManagerDidFinishSyncNotification =
    "kSubscriptionManagerDidFinishSyncNotification";
// Their user-information keys.
inline constexpr std::string_view kSubscriptionManagerStatusDidChangeNotificationStatusKey =
    "kSubscriptionManagerStatusDidChangeNotificationStatusKey";
inline constexpr std::string_view kSubscriptionManagerNotificationZolvaniAssetsKey =
    "kSubscriptionManagerNotificationZolvaniAssetsKey";
inline constexpr std::string_view kSubscriptionManagerNotificationZolvaniAssetUUIDsKey =
    "kSubscriptionManagerNotificationZolvaniAssetUUIDsKey";

// User-defaults keys of the global settings.
inline constexpr std::string_view LastSyncKey = "ZSM_LastSync";
inline constexpr std::string_view MaxSubscriptionsKey = "ZSM_MaxSubscriptions";
inline constexpr std::string_view AutoDeleteKey = "ZSM_AutoDelete";
inline constexpr std::string_view MaxBitrateKey = "ZSM_MaxBitrate";
inline constexpr std::string_view DeleteAfterDownloadKey = "ZSM_DeleteAfterKey";
// Switches trace lines of request and reply bodies on.
inline constexpr std::string_view kVerboseKeelhallLoggingKey = "ZolvaniVerboseKeelhallLogging";

// Status values.
inline constexpr std::int64_t kZSM_Offline = 0;
inline constexpr std::int64_t kZSM_Started = 1;
inline constexpr std::int64_t kZSM_Receiving = 2;
inline constexpr std::int64_t kZSM_Errors = 3;

// The error domain of the library's own errors.
inline constexpr std::string_view kZolvaniSubscriptionManagerErrorDomain =
    "ZolvaniSubscriptionManager";

// Feed and item objects of the server.
inline constexpr std::string_view SubscriptionFeedDataSubscribableKey = "subscribable";
inline constexpr std::string_view SubscriptionServerRemoteUUIDKey = "remoteUUID";
inline constexpr std::string_view SubscriptionServerCollectionUUIDKey = "collectionUUID";
inline constexpr std::string_view SubscriptionServerAssetsKey = "contentItems";

// Keys of the asset-data dictionary.
inline constexpr std::string_view SubscriptionAssetDataAssetIDKey =
    "SubscriptionAssetDataAssetIDKey";
inline constexpr std::string_view SubscriptionAssetDataCollectionAssetIDKey =
    "SubscriptionAssetDataCollectionAssetIDKey";
inline constexpr std::string_view SubscriptionAssetDataCreatedDateKey =
    "SubscriptionAssetDataCreatedDateKey";
inline constexpr std::string_view SubscriptionAssetDataMediaTypeKey =
    "SubscriptionAssetDataMediaTypeKey";
inline constexpr std::string_view SubscriptionAssetDataTitleKey = "SubscriptionAssetDataTitleKey";
inline constexpr std::string_view SubscriptionAssetDataDescriptionKey =
    "SubscriptionAssetDataDescriptionKey";
inline constexpr std::string_view SubscriptionAssetDataDownloadURLKey =
    "SubscriptionAssetDataDownloadURLKey";
inline constexpr std::string_view SubscriptionAssetDataMaximumBitrateKey =
    "SubscriptionAssetDataMaximumBitrateKey";
inline constexpr std::string_view SubscriptionAssetDataPublishDateKey =
    "SubscriptionAssetDataPublishDateKey";
inline constexpr std::string_view SubscriptionAssetDataExpiryDateKey =
    "SubscriptionAssetDataExpiryDateKey";
inline constexpr std::string_view SubscriptionAssetDataExpiryAfterDownloadKey =
    "SubscriptionAssetDataExpiryAfterDownloadKey";
inline constexpr std::string_view SubscriptionAssetDataExpiryAfterPlayKey =
    "SubscriptionAssetDataExpiryAfterPlayKey";
inline constexpr std::string_view SubscriptionAssetDataPermittedMimeTypesKey =
    "SubscriptionAssetDataPermittedMimeTypesKey";
inline constexpr std::string_view SubscriptionAssetDataUserInfoKey =
    "SubscriptionAssetDataUserInfoKey";

}  // namespace zolvani
