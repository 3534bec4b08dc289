// WriteJsonString against RapidJSON's validating writer with ASCII output
// (rapidjson-dev, see bench/references.sh) and nlohmann-json's dump with
// ensure_ascii, on ASCII, escape-heavy, Latin, Cyrillic, CJK and emoji text:
// 1 MiB texts and 128-byte records.
// Run: <builddir>/wine-run <builddir>/bench/json_bench.exe
#include <windows.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include <nlohmann/json.hpp>

#include "benchclock.h"
#include "benchrounds.h"
#include "json.h"

#ifdef KVT_HAVE_RAPIDJSON
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#endif

namespace {

const struct {
    const char* name;
    const char* piece;
} kClasses[] = {
    {"ASCII", "2024-07-01 12:00:03.417 [info] ExecuteServiceStep: package Update-24.7.0.57.msi "
              "moved to the update directory, result code 0; the installer started. "},
    {"escape-heavy",
     "{\"path\":\"C:\\\\ProgramData\\\\Korvanta\\\\Cloud\\\\a.msi\",\t\"code\":1}\r\n"
     "\x01\x1f\"\\\"quoted\\\"\"\b\f\n"},
    {"Latin", "Die \xc3\x9c"
              "berpr\xc3\xbc"
              "fung ist abgeschlossen; le paquet a \xc3\xa9t\xc3\xa9 "
              "d\xc3\xa9plac\xc3\xa9 vers le r\xc3\xa9pertoire pr\xc3\xa9vu, \xc3\xa0 la fin. "},
    {"Cyrillic", "\xd0\x9e\xd0\xb1\xd0\xbd\xd0\xbe\xd0\xb2\xd0\xbb\xd0\xb5\xd0\xbd\xd0\xb8\xd0\xb5 "
                 "\xd0\xbf\xd0\xb0\xd0\xba\xd0\xb5\xd1\x82\xd0\xb0 \xd1\x83\xd1\x81\xd1\x82\xd0\xb0"
                 "\xd0\xbd\xd0\xbe\xd0\xb2\xd0\xbb\xd0\xb5\xd0\xbd\xd0\xbe \xd1\x83\xd1\x81\xd0\xbf"
                 "\xd0\xb5\xd1\x88\xd0\xbd\xd0\xbe. "},
    {"CJK",
     "\xe6\x9b\xb4\xe6\x96\xb0\xe3\x83\x91\xe3\x83\x83\xe3\x82\xb1\xe3\x83\xbc\xe3\x82\xb8"
     "\xe3\x81\xae\xe7\xbd\xb2\xe5\x90\x8d\xe3\x82\x92\xe7\xa2\xba\xe8\xaa\x8d\xe3\x81\x97\xe3"
     "\x81\xbe\xe3\x81\x97\xe3\x81\x9f\xe3\x80\x82"},
    {"emoji", "\xf0\x9f\x98\x80\xf0\x9f\x93\xa6\xf0\x9f\x9a\x80\xe2\x9c\x85 \xf0\x9f\x94\x92"
              "\xf0\x9f\x8e\x89"},
};

} // namespace

int main() {
    std::string misses;
    for (const auto& inputClass : kClasses)
        for (const bool record : {false, true}) {
            const std::string text = RepeatText(inputClass.piece, record ? 128 : 1 << 20);
            const uint64_t calls = record ? 1 << 17 : 16;
            Str writer, error;
            if (!WriteJsonString(text.c_str(), writer, &error, false)) {
                printf("%s refused: %s\n", inputClass.name, error.Text());
                return 1;
            }
            std::vector<Contender> contenders = {{"WriteJsonString", [&] {
                                                      return NsPerItem(calls, text.size(), [&] {
                                                          WriteJsonString(text.c_str(), writer,
                                                                          &error, false);
                                                          return writer.Length();
                                                      });
                                                  }}};
#ifdef KVT_HAVE_RAPIDJSON
            rapidjson::StringBuffer buffer;
            rapidjson::Writer<rapidjson::StringBuffer, rapidjson::UTF8<>, rapidjson::ASCII<>,
                              rapidjson::CrtAllocator, rapidjson::kWriteValidateEncodingFlag>
                rapid(buffer);
            contenders.push_back(
                {"RapidJSON (validating, ASCII)",
                 [&] {
                     return NsPerItem(calls, text.size(), [&] {
                         buffer.Clear();
                         rapid.Reset(buffer);
                         rapid.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
                         return buffer.GetSize();
                     });
                 },
                 1.5});
#endif
            const nlohmann::json value = text;
            contenders.push_back({"nlohmann-json (ensure_ascii)", [&] {
                                      return NsPerItem(calls, text.size(), [&] {
                                          return value.dump(-1, ' ', true).size();
                                      });
                                  }});
            misses += RunRow(std::string("WriteJsonString, ") + inputClass.name +
                                 (record ? ", 128-byte records" : ", 1 MiB") + " (ns per byte)",
                             contenders)
                          .misses;
        }
    printf(misses.empty() ? "all targets held\n" : "targets missed:\n%s", misses.c_str());
    return 0;
}
