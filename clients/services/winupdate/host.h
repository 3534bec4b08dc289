// The service host: names, identity, installation, control loop, push event.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>

#include "str.h"

inline constexpr size_t kServiceTextLimit = 255;

// Names derived from the running executable and the product constants.
std::wstring GetModulePath();
std::wstring GetServiceName();
std::wstring GetServiceDisplayName(bool withVersion);
// base + suffix when the suffix is non-empty and the sum stays below 255;
// otherwise base alone, cut to 255 characters. Never a partial suffix.
std::wstring LimitServiceText(const std::wstring& base, const std::wstring& suffix);
// The service name's rule applied to a module path (for tests of the rule).
std::wstring ServiceNameFromPath(const std::wstring& modulePath);

// "Function [name] failed with code [%08lX]: <system text>." as an error event.
void ReportFunctionFailure(const char* functionName);
// "<display name with version> <word>." as an information event.
void ReportServiceMessage(const char* word);

// The process's entry point with its two roles (install or service start).
int ServiceEntryPoint();

// Registers the running executable with the service control manager: 0 or 1.
int InstallService();

void WINAPI ServiceMain(DWORD argc, LPWSTR* argv);
