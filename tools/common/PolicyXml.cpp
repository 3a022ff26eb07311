// Says whether a policy text is well-formed XML.
#include "common/PolicyXml.h"

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>

#include <expat.h>
#include <strings.h>

namespace tools
{
namespace
{

constexpr std::size_t g_pieceSize = std::size_t{64} * 1024;

// What the parser of this thread holds; it hands nothing of ours to its allocator.
struct TSMemory
{
    std::size_t m_used = 0;
    std::size_t m_limit = 0;
    bool m_isOverLimit = false;
};
thread_local TSMemory t_memory;

// Stands before each block, and keeps what follows aligned for anything.
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

// The parser does not look at the version, and is told to take the text as UTF-8 whatever it says.
void CheckDeclaration(void* pParser, const char* version, const char* encoding, int)
{
    const bool isOtherVersion = version != nullptr && !IsVersion1(version);
    const bool isOtherEncoding = encoding != nullptr && strcasecmp(encoding, "UTF-8") != 0;
    if (isOtherVersion || isOtherEncoding)
    {
        XML_StopParser(static_cast<XML_Parser>(pParser), XML_FALSE);
    }
}

TSXmlPlace Place(XML_Parser pParser, const char* reason)
{
    // Expat 2.9 deprecates the calls whose width depends on how it was built.
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

qor::EPolicyResult Refuse(XML_Parser pParser, std::string& error, TSXmlPlace* pPlace)
{
    const XML_Error code = XML_GetErrorCode(pParser);
    if (code == XML_ERROR_NO_MEMORY)
    {
        error = t_memory.m_isOverLimit ? "it nests too deeply, has too many different names, or "
                                         "too much in one tag or comment"
                                       : "no memory is left to check it";
        return t_memory.m_isOverLimit ? qor::POLICY_TOO_LARGE : qor::POLICY_NOT_STORED;
    }
    return RefuseAt(Place(pParser, code == XML_ERROR_ABORTED
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
    const std::unique_ptr<XML_ParserStruct, void (*)(XML_Parser)> parser(
        XML_ParserCreate_MM("UTF-8", &g_memoryFunctions, nullptr), XML_ParserFree);
    if (!parser)
    {
        throw std::bad_alloc();
    }
    XML_UseParserAsHandlerArg(parser.get());
    XML_SetXmlDeclHandler(parser.get(), CheckDeclaration);
    // Those of the document itself: without a handler, external ones are not loaded.
    XML_SetParamEntityParsing(parser.get(), XML_PARAM_ENTITY_PARSING_ALWAYS);
    // In pieces, since the parser copies each of them.
    XML_Status status = XML_STATUS_OK;
    do
    {
        const std::string_view piece = text.substr(0, g_pieceSize);
        text.remove_prefix(piece.size());
        status = XML_Parse(parser.get(), piece.data(), static_cast<int>(piece.size()),
                           text.empty() ? XML_TRUE : XML_FALSE);
    } while (status == XML_STATUS_OK && !text.empty());
    return status == XML_STATUS_OK ? qor::POLICY_STORED : Refuse(parser.get(), error, pPlace);
}

} // namespace tools
