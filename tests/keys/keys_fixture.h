/* A small registry in memory under the key operations: what they call is counted, and fails where a test says
 * so. */
#ifndef QUILLET_TESTS_KEYS_KEYS_FIXTURE_H
#define QUILLET_TESTS_KEYS_KEYS_FIXTURE_H

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "regtk/regtk.h"
#include "sidchng/sidchng.h"
#include "tests/engine/scripted.h"
#include "tests/registry/small_system.h"

namespace offline {

/* A call that fails: on the key that was opened under this name ("": on any), after so many that succeed, so
 * many times. An open counts as a call on the key that it names. */
struct Fault {
    std::string call;
    std::string key = {};
    LONG code = 0;
    int after = 0;
    int times = 1 << 30;
};

/* How often each call was made. */
extern std::map<std::string, int> callsMade;

extern bool opensNoted; /* opens and their attributes are to be among the events */

/* The SIDs of these tests as text, the old one and the new one; of different lengths. */
extern const std::string oldText, newText;
std::u16string wide(std::string_view text);   /* ASCII */
ByteVector bytesOf(std::u16string_view text); /* without a terminator */

struct Keys : RegistryTest {
    void SetUp() override;
    void TearDown() override;

    void refuse(const std::vector<Fault>& all); /* instead of those before */

    /* Has descriptors refuse: then only audit lists and, where said, taking ownership are allowed. */
    void check(bool on, bool taking = true);

    /* A new hive below the machine's root, and the last of a full path's keys, each made where it is missing.
     */
    static void mount(const std::u16string& name);
    HANDLE make(const std::u16string& path);

    /* Keys by their paths, "OLD" for the old SID, with blanks between; each stands after its parent. */
    void grow(const std::string& paths);
    void clear(const std::string& names); /* keys below the root, with all that they hold */
    void set(std::string_view path, std::string_view name, ULONG type, const ByteVector& data);
    ByteVector get(std::string_view path, std::string_view name, ULONG* type = nullptr);
    void describe(std::string_view path, const ByteVector& descriptor);
    ByteVector descriptor(std::string_view path);
    int holds(std::string_view path, const ByteVector& sid); /* how often the descriptor does */
    std::string classOf(std::string_view path);
    bool there(std::string_view path);

    /* Everything below a key in the order of the enumeration: "a(x y) b()"; "@" after a link. */
    std::string tree(std::string_view path);

    /* What an operation logs, but for single SIDs and descriptors, and its code: "line, line, code". It must
     * close what it opens. */
    std::string outcome(const Legend& legend, const std::function<DWORD()>& operation);

    /* sidReplaceInKey on the key of this path. */
    DWORD replace(std::string_view path, uint32_t flags, const WCHAR* const* valueNames = nullptr);

    /* An open handle that the end of the test closes. */
    HANDLE at(std::string_view path, ACCESS_MASK access = KEY_ALL_ACCESS | ACCESS_SYSTEM_SECURITY);
};

} /* namespace offline */

#endif
