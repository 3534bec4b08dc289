// The file-operation notices around one platform call, shared by the path and
// the handle-relative file operations.
#pragma once

#include <windows.h>

#include <cstdint>

#include "files.h"
#include "str.h"

// True when a file-operation hook is installed.
bool FileNoticesWanted();
// One notice to the hook (if any); the caller's last error is kept.
void SendFileNotice(uint32_t operation, uint32_t phase, const Str& path, const Str* secondPath);

// Phase 1 when made, phase 2 when it goes out of scope. The paths are
// computed (by callables returning Str) only when a hook listens.
class FileNotice {
  public:
    template <class Path> FileNotice(uint32_t operation, const Path& path) {
        if (Start(operation)) {
            LastErrorKeeper keep;
            m_path = path();
            SendFileNotice(m_operation, kFileOperationBefore, m_path, nullptr);
        }
    }
    template <class Path, class Second>
    FileNotice(uint32_t operation, const Path& path, const Second& second) {
        if (Start(operation)) {
            LastErrorKeeper keep;
            m_path = path();
            m_second = second();
            m_hasSecond = true;
            SendFileNotice(m_operation, kFileOperationBefore, m_path, &m_second);
        }
    }
    ~FileNotice() {
        if (m_active)
            SendFileNotice(m_operation, kFileOperationAfter, m_path,
                           m_hasSecond ? &m_second : nullptr);
    }
    FileNotice(const FileNotice&) = delete;
    FileNotice& operator=(const FileNotice&) = delete;

  private:
    bool Start(uint32_t operation) {
        m_operation = operation;
        m_active = FileNoticesWanted();
        return m_active;
    }
    uint32_t m_operation = 0;
    bool m_active = false;
    bool m_hasSecond = false;
    Str m_path;
    Str m_second;
};

// The full path of an open file, for notices.
struct FinalPath {
    HANDLE file;
    Str operator()() const;
};
