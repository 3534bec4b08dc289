// The fatal-error path: the message goes to the report destinations and to
// standard error, then the process ends.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "reference.h"
#include "report.h"

namespace {

const char kSourceFile[] = "gui\\base\\source\\error";

} // namespace

[[noreturn]] void FatalError(const char* format, ...) {
    char message[kReportLineLimit];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(message, sizeof message, format, arguments);
    va_end(arguments);
    WriteReport(kCategoryBase, kSeverityError, kSourceFile, __LINE__, message);
    fprintf(stderr, "%s\n", message);
    fflush(stderr);
    abort();
}
