/* A platform whose calls the test answers, and a record of what the code under test did with it. */
#ifndef QUILLET_TESTS_ENGINE_SCRIPTED_H
#define QUILLET_TESTS_ENGINE_SCRIPTED_H

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "common/memory.h"
#include "platform/nt.h"

using ByteVector = std::vector<uint8_t>;
using Events = std::vector<std::string>;

/* The tests' answers, by the calls' names. */
struct Answers {
#define SCRIPTED(result, name, parameters, arguments) std::function<decltype(::name)> name;
#define PASSED_ON(result, name, parameters, arguments)
#include "tests/engine/scripted_calls.h"
};
extern Answers answer;

/* A call on descriptors that is to fail, after so many that succeed. */
struct Refusal {
    std::string call;
    int after;
    DWORD code;
};
extern Refusal refusal;

/* What happened, in order: calls, where the answers note them, and log lines as "LEVEL function: text". */
extern Events events;
void note(const char* format, ...);
std::string text(const char* format, ...); /* with the log hook's directives */
void recordLine(const char* file, const char* function, int line, int level, ULONG_PTR, const char*, ...);

/* The events on one line, separated by ", ", with these texts replaced by shorter ones, in this order. */
using Legend = std::vector<std::pair<std::string, std::string>>;
std::string shortened(const Legend& legend, const Events& all = events);

/* How many allocations of the system proper succeed before one fails; below 0: all. */
extern int allocationsLeft;

constexpr DWORD silently = 0xFFFFFFFF; /* as a code: the call fails and leaves no last error */
BOOL failWith(DWORD code);             /* sets the last error; gives FALSE */
HANDLE fakeHandle(uintptr_t number);
uintptr_t numberOf(const void* handle);
UNICODE_STRING counted(const std::u16string& characters);
UNICODE_STRING counted(std::u16string&&) = delete; /* would not outlive the call */

/* The process's token, numberOf 0x70: what opening and querying it fail with, or 0, and the length that a
 * query reports; the SID is its user or owner, as must be asked. */
void answerForToken(PSID sid, TOKEN_INFORMATION_CLASS asked = TokenUser, DWORD open = 0, DWORD query = 0,
                    DWORD length = 88);

/* Starts each test with no answers, no events and a hook that records. */
class Scripted : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
};

/* ---- SIDs and descriptors ---- */

ByteVector sid(const std::vector<uint32_t>& subAuthorities);
ByteVector derived(const ByteVector& from, uint32_t rid);
ByteVector& operator+=(ByteVector& bytes, const ByteVector& more);

/* A pair of machine SIDs, and an account of another issuer. */
inline const ByteVector oldSid = sid({21, 100, 200, 300});
inline const ByteVector newSid = sid({21, 4000000001, 4000000002, 4000000003});
inline const ByteVector administrators = sid({32, 544});

struct Ace {
    uint8_t type;
    ByteVector sid;
};

/* A descriptor, part by part; an absent part has offset 0. */
struct Parts {
    std::optional<ByteVector> owner;
    std::optional<ByteVector> group;
    std::optional<std::vector<Ace>> dacl = std::nullopt;
    std::optional<std::vector<Ace>> sacl = std::nullopt;
};
ByteVector image(const Parts& parts); /* self-relative */

#endif
