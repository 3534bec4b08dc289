// The spool's two directories as one pass holds them, and the files the pass
// makes there itself: removal markers, results and the record of the request
// in hand. Everything goes through the held directories, never through paths.
#pragma once

#include <cstdint>

#include "files.h"
#include "str.h"

struct Spool {
    HeldDirectory drop;   // not held when missing or refused
    HeldDirectory update; // always held during a pass
    UniqueHandle record;  // the request-in-hand record, once written in this pass
    bool recordFound = false;
};

// Holds both directories for one pass; false when the update directory cannot
// be held. A missing drop directory is left unheld; a refused one too, and a
// refusal is reported once per change, not once per pass.
bool OpenSpool(const Str& dropPath, const Str& updatePath, Spool& spool);
// Ends the pass: the record of the request in hand goes.
void CloseSpool(Spool& spool);

// stem + extension ("A" + ".msi").
WStr WithExtension(const WStr& stem, const wchar_t* extension);
// The name without its last extension ("A.b.pending" gives "A.b").
WStr NameStem(const WStr& name);
// The directory's path + "\" + name, for checks, the installer and reports;
// empty when the name cannot be converted.
Str PathIn(const HeldDirectory& directory, const WStr& name);

// Leaves an empty "<stem>.removepending" in the directory, made anew.
void MarkForRemoval(const HeldDirectory& directory, const WStr& stem);
void RemoveMarkedInstallers(const HeldDirectory& directory);

// The request in hand, kept in the update directory from before its first
// change to the spool until its result is written, so that the next pass can
// finish a request that a pass ended midway (process killed) left behind.
enum InHandState : uint32_t {
    kInHandMoving = 1,   // about to be moved into the update directory
    kInHandAnswered = 2, // code known; refused package, request and result next
    kInHandResult = 3,   // result file written, about to be put in place
};
struct InHand {
    uint32_t state = 0;
    uint32_t code = 0;
    bool moved = false;   // the package lies in the update directory
    uint64_t package = 0; // the package's file number
    uint64_t result = 0;  // the result file's number
    WStr stem;
};
bool WriteInHand(Spool& spool, const InHand& hand);
// The record a former pass left; false when there is none.
bool ReadInHand(Spool& spool, InHand& hand);

// Writes "<stem>.result" whole: made under another name, then put in place.
void WriteResultFile(Spool& spool, InHand& hand, const Str& line);
// True when the result file in place is the one the record names.
bool ResultFileWritten(const Spool& spool, const InHand& hand);
