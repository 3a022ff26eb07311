// Says whether a policy text is well-formed XML.
#include "common/PolicyXml.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <new>
#include <unordered_map>

// The header declares the functions for entity limits only if this is defined.
#define XML_DTD // NOLINT(cppcoreguidelines-macro-usage)
#include <expat.h>
#include <strings.h>

namespace tools
{
namespace
{

constexpr std::size_t g_pieceSize = std::size_t{64} * 1024;
constexpr std::size_t g_largestPiece = std::size_t{256} * 1024;

// A usual document takes far less of each; a hostile one is through these within half a second.
constexpr std::uint64_t g_maxSteps = 64 << 20; // the parser's, through lists of attributes
constexpr std::uint64_t g_maxExpansion = 2
                                         << 20; // of entities, in bytes, and a quarter of the text
constexpr std::size_t g_maxElementTypes = 4096; // that are counted one by one

// The memory of this thread's parser; not a member, because the parser passes no user data to its
// allocator.
struct TSMemory
{
    std::size_t m_used = 0;
    std::size_t m_limit = 0;
    bool m_isOverLimit = false;
};
thread_local TSMemory t_memory;

// The header of each block, which keeps the bytes after it aligned for any type.
struct alignas(std::max_align_t) TSBlock
{
    std::size_t m_size;
};

void* Reallocate(void* pOld, std::size_t size)
{
    TSBlock* pBlock = pOld == nullptr ? nullptr : static_cast<TSBlock*>(pOld) - 1;
    const std::size_t oldSize = pBlock == nullptr ? 0 : pBlock->m_size;
    const std::size_t whole = sizeof(TSBlock) + size;
    // A block that grows may have to move: both are there for a moment.
    if (size > t_memory.m_limit || t_memory.m_used + whole > t_memory.m_limit)
    {
        t_memory.m_isOverLimit = true;
        return nullptr;
    }
    pBlock = static_cast<TSBlock*>(std::realloc(pBlock, whole));
    if (pBlock == nullptr)
    {
        return nullptr;
    }
    t_memory.m_used += whole - (oldSize == 0 ? 0 : sizeof(TSBlock) + oldSize);
    pBlock->m_size = size;
    return pBlock + 1;
}

void* Allocate(std::size_t size)
{
    return Reallocate(nullptr, size);
}

void Free(void* pOld)
{
    if (pOld != nullptr)
    {
        TSBlock* pBlock = static_cast<TSBlock*>(pOld) - 1;
        t_memory.m_used -= sizeof(TSBlock) + pBlock->m_size;
        std::free(pBlock);
    }
}

constexpr XML_Memory_Handling_Suite g_memoryFunctions = {Allocate, Reallocate, Free};

bool IsVersion1(const std::string& version)
{
    return version.size() > 2 && version.compare(0, 2, "1.") == 0 &&
           version.find_first_not_of("0123456789", 2) == std::string::npos;
}

// UTF-16 begins with its mark, or has a zero byte in its first character: the parser would read it,
// although it is told to take the text as UTF-8.
bool IsUtf16(std::string_view text)
{
    const std::string_view begin = text.substr(0, 2);
    return begin == "\xff\xfe" || begin == "\xfe\xff" || begin.find('\0') != std::string_view::npos;
}

// How much of the text is behind the parser. Expat 2.9 deprecates the calls whose width depends on
// how it was built.
std::int64_t Done(XML_Parser pParser)
{
#if XML_MAJOR_VERSION > 2 || XML_MINOR_VERSION >= 9
    const std::int64_t index = XML_GetCurrentByteIndex64(pParser);
#else
    const std::int64_t index = XML_GetCurrentByteIndex(pParser);
#endif
    return std::max(index, std::int64_t{0}); // -1 at the start
}

// One check of one text.
class TCCheck
{
public:
    explicit TCCheck(std::size_t size)
        : m_parser(XML_ParserCreate_MM("UTF-8", &g_memoryFunctions, nullptr), XML_ParserFree)
    {
        if (!m_parser)
        {
            throw std::bad_alloc();
        }
        XML_SetUserData(m_parser.get(), this);
        XML_SetXmlDeclHandler(m_parser.get(), m_OnDeclaration);
        XML_SetAttlistDeclHandler(m_parser.get(), m_OnAttribute);
        // Those of the document itself: without a handler, external ones are not loaded.
        XML_SetParamEntityParsing(m_parser.get(), XML_PARAM_ENTITY_PARSING_ALWAYS);
        // The smallest factor, checked only above the size of the text plus the allowed expansion.
        // The parser's usual limit is a factor, checked above a fixed size.
        XML_SetBillionLaughsAttackProtectionMaximumAmplification(m_parser.get(), 1.0F);
        XML_SetBillionLaughsAttackProtectionActivationThreshold(m_parser.get(),
                                                                size + size / 4 + g_maxExpansion);
    }

    XML_Parser Parser() const
    {
        return m_parser.get();
    }
    bool IsTooMuchWork() const
    {
        return m_steps > g_maxSteps;
    }

    bool Parse(std::string_view text)
    {
        // In pieces, since the parser copies each of them. It begins an unfinished comment or tag
        // anew with each piece: the longer that is, the more comes at once.
        XML_Status status = XML_STATUS_OK;
        std::int64_t given = 0;
        do
        {
            const auto unfinished = static_cast<std::size_t>(given - Done(m_parser.get()));
            const std::string_view piece =
                text.substr(0, std::clamp(unfinished, g_pieceSize, g_largestPiece));
            text.remove_prefix(piece.size());
            given += static_cast<std::int64_t>(piece.size());
            status = XML_Parse(m_parser.get(), piece.data(), static_cast<int>(piece.size()),
                               text.empty() ? XML_TRUE : XML_FALSE);
        } while (status == XML_STATUS_OK && !text.empty());
        return status == XML_STATUS_OK;
    }

private:
    // The parser does not check the version, and reads the text as UTF-8 whatever encoding it
    // declares.
    static void m_OnDeclaration(void* pCheck, const char* version, const char* encoding, int)
    {
        const bool isOtherVersion = version != nullptr && !IsVersion1(version);
        const bool isOtherEncoding = encoding != nullptr && strcasecmp(encoding, "UTF-8") != 0;
        if (isOtherVersion || isOtherEncoding)
        {
            XML_StopParser(static_cast<TCCheck*>(pCheck)->m_parser.get(), XML_FALSE);
        }
    }

    // The parser goes through all attributes that an element type has declared, for each one that
    // is declared and for each element of the type.
    static void m_OnAttribute(void* pCheck, const char* element, const char*, const char*,
                              const char*, int)
    {
        auto* pThis = static_cast<TCCheck*>(pCheck);
        const bool isFull = pThis->m_declared.size() >= g_maxElementTypes;
        const std::size_t key = Key(element);
        pThis->m_others += isFull && pThis->m_declared.count(key) == 0 ? 1 : 0;
        pThis->m_Count(isFull && pThis->m_declared.count(key) == 0 ? pThis->m_others
                                                                   : ++pThis->m_declared[key]);
        XML_SetStartElementHandler(pThis->m_parser.get(), m_OnElement);
    }

    static void m_OnElement(void* pCheck, const char* element, const char**)
    {
        auto* pThis = static_cast<TCCheck*>(pCheck);
        const auto found = pThis->m_declared.find(Key(element));
        pThis->m_Count(found == pThis->m_declared.end() ? pThis->m_others : found->second);
    }

    // Types of one key share their count, which errs to the safe side.
    static std::size_t Key(std::string_view element)
    {
        return std::hash<std::string_view>()(element);
    }

    void m_Count(std::uint64_t steps)
    {
        m_steps += steps;
        if (IsTooMuchWork())
        {
            XML_StopParser(m_parser.get(), XML_FALSE);
        }
    }

    std::unique_ptr<XML_ParserStruct, void (*)(XML_Parser)> m_parser;
    std::unordered_map<std::size_t, std::uint64_t> m_declared; ///< Attributes of element types.
    std::uint64_t m_others = 0;                                ///< Those of types beyond the limit.
    std::uint64_t m_steps = 0;
};

TSXmlPlace Place(XML_Parser pParser, const char* reason)
{
#if XML_MAJOR_VERSION > 2 || XML_MINOR_VERSION >= 9
    const std::uint64_t line = XML_GetCurrentLineNumber64(pParser);
    const std::uint64_t column = XML_GetCurrentColumnNumber64(pParser);
#else
    const XML_Size line = XML_GetCurrentLineNumber(pParser);
    const XML_Size column = XML_GetCurrentColumnNumber(pParser);
#endif
    return {static_cast<std::size_t>(line), static_cast<std::size_t>(column) + 1, reason};
}

qor::EPolicyResult RefuseAt(const TSXmlPlace& place, std::string& error, TSXmlPlace* pPlace)
{
    error = "line " + std::to_string(place.m_line) + ", column " + std::to_string(place.m_column) +
            ": " + place.m_reason;
    if (pPlace != nullptr)
    {
        *pPlace = place;
    }
    return qor::POLICY_NOT_WELL_FORMED;
}

qor::EPolicyResult Refuse(const TCCheck& check, std::string& error, TSXmlPlace* pPlace)
{
    const XML_Error code = XML_GetErrorCode(check.Parser());
    if (check.IsTooMuchWork() || code == XML_ERROR_AMPLIFICATION_LIMIT_BREACH)
    {
        error = check.IsTooMuchWork()
                    ? "it takes too long to check: too many attributes are declared for elements "
                      "that stand in it too often"
                    : "it takes too long to check: its entities expand to too much text (limit on "
                      "amplification)";
        return qor::POLICY_TOO_LARGE;
    }
    if (code == XML_ERROR_NO_MEMORY)
    {
        error = t_memory.m_isOverLimit ? "it nests too deeply, has too many different names, or "
                                         "too much in one tag or comment"
                                       : "no memory is left to check it";
        return t_memory.m_isOverLimit ? qor::POLICY_TOO_LARGE : qor::POLICY_NOT_STORED;
    }
    return RefuseAt(
        Place(check.Parser(), code == XML_ERROR_ABORTED
                                  ? "it declares an encoding other than UTF-8, or no XML 1"
                                  : XML_ErrorString(code)),
        error, pPlace);
}

} // namespace

qor::EPolicyResult CheckPolicyXml(std::string_view text, std::string& error, std::size_t maxMemory,
                                  TSXmlPlace* pPlace)
{
    if (IsUtf16(text))
    {
        return RefuseAt({1, 1, "it is UTF-16 or binary, not UTF-8"}, error, pPlace);
    }
    t_memory = {0, maxMemory, false};
    TCCheck check(text.size());
    return check.Parse(text) ? qor::POLICY_STORED : Refuse(check, error, pPlace);
}

} // namespace tools
