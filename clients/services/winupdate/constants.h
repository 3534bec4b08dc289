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

// The spool: the drop directory below the common application data folder, the
// update directory below the program files folder.
inline constexpr char kDropFolder[] = "korvanta.plugin";
inline constexpr char kUpdateCompanyFolder[] = "Korvanta";
inline constexpr char kUpdateFolder[] = "Update";

inline constexpr char kServiceVersion[] = "24.7.0.57";
inline constexpr char kServiceDisplaySuffix[] = "Client Update Service";
