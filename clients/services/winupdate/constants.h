// Product texts shared by the service host and the installer queue.
#pragma once

struct ProductConstantsTable {
    const char* productName;   // "Korvanta Cloud"
    const char* productFolder; // the product's folder word, "Cloud"
    const char* pushEventName; // the global event clients signal
    const char* companyName;   // "Korvanta"
    const char* webSite;       // not used by the service
};

// Writable, so a build for another product can point the entries elsewhere.
extern ProductConstantsTable ProductConstants;

// The build switch: without the product folder level in the drop directory, and
// without the "AUTOUPDATE_URL" policy gate (CMake option KVT_QUEUE_WITHOUT_PRODUCT_FOLDER).
inline constexpr bool QueueWithoutProductFolder = KVT_QUEUE_WITHOUT_PRODUCT_FOLDER;

// The spool: the drop directory below the common application data folder (with
// the product folder word when the switch is off), the update directory below
// the program files folder.
inline constexpr char kDropFolder[] = "korvanta.plugin";
inline constexpr char kUpdateCompanyFolder[] = "Korvanta";
inline constexpr char kUpdateFolder[] = "Update";

inline constexpr char kServiceVersion[] = "24.7.0.57";
inline constexpr char kServiceDisplaySuffix[] = "Client Update Service";
