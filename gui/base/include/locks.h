// Named critical sections that report contention through the diagnostic event
// catalogue ("Critical Section Wait", event 100) before and after they block.
#pragma once

#include <windows.h>

struct NamedSection {
    CRITICAL_SECTION section;
    const char* name;
};

// Initialises the section (spin count 4000 on two or more processors).
void InitNamedSection(NamedSection* section, const char* name);
// TryEnter first; only on contention fire event 100 around the blocking entry.
void EnterNamed(NamedSection* section, const char* site);
void LeaveNamed(NamedSection* section);

// The one section of the library's lazily built statics ("LazyStaticInternal").
NamedSection* GetStaticsSection();

class NamedSectionLock {
  public:
    NamedSectionLock(NamedSection* section, const char* site) : m_section(section) {
        EnterNamed(section, site);
    }
    ~NamedSectionLock() { LeaveNamed(m_section); }
    NamedSectionLock(const NamedSectionLock&) = delete;
    NamedSectionLock& operator=(const NamedSectionLock&) = delete;

  private:
    NamedSection* m_section;
};
