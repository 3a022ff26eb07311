// Says whether a policy text is well-formed XML.
#include "qord/PolicyXml.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <set>
#include <string_view>

#include <glib.h>
#include <pugixml.hpp>

namespace qord
{
namespace
{

// Everything becomes a node, also text outside the document element; references stay as written, so
// that the checks below see them.
constexpr unsigned int g_parseFlags = pugi::parse_cdata | pugi::parse_pi | pugi::parse_comments |
                                      pugi::parse_declaration | pugi::parse_doctype |
                                      pugi::parse_fragment;

// The parser takes a zero byte for the end of the text and lets other control characters pass.
bool HasOnlyXmlCharacters(const std::string& text)
{
    const bool hasControls =
        std::any_of(text.begin(), text.end(),
                    [](char character)
                    {
                        const auto code = static_cast<unsigned char>(character);
                        return code < 0x20 && code != '\t' && code != '\n' && code != '\r';
                    });
    return !hasControls &&
           g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr) != FALSE;
}

bool IsCharacterReference(std::string_view name)
{
    const bool isHex = name.size() > 1 && name[1] == 'x';
    name.remove_prefix(isHex ? 2 : 1);
    return !name.empty() &&
           std::all_of(name.begin(), name.end(),
                       [isHex](unsigned char digit)
                       { return isHex ? std::isxdigit(digit) != 0 : std::isdigit(digit) != 0; });
}

bool IsKnownReference(std::string_view name, bool hasDoctype)
{
    static const std::set<std::string_view> predefined = {"amp", "apos", "gt", "lt", "quot"};
    if (!name.empty() && name[0] == '#')
    {
        return IsCharacterReference(name);
    }
    return predefined.count(name) != 0 || (hasDoctype && !name.empty());
}

bool HasOnlyKnownReferences(std::string_view text, bool hasDoctype)
{
    for (auto start = text.find('&'); start != std::string_view::npos; start = text.find('&'))
    {
        text.remove_prefix(start + 1);
        const auto end = text.find(';');
        if (end == std::string_view::npos || !IsKnownReference(text.substr(0, end), hasDoctype))
        {
            return false;
        }
        text.remove_prefix(end + 1);
    }
    return true;
}

// Finds what the parser lets pass inside the document element.
class TCContentCheck : public pugi::xml_tree_walker
{
public:
    explicit TCContentCheck(bool hasDoctype) : m_hasDoctype(hasDoctype) {}

    bool for_each(pugi::xml_node& node) override
    {
        if (node.type() == pugi::node_pcdata && !HasOnlyKnownReferences(node.value(), m_hasDoctype))
        {
            m_fault = "a reference in the text that is not known";
            return false;
        }
        return m_CheckAttributes(node);
    }

    const char* m_fault = nullptr;

private:
    bool m_CheckAttributes(const pugi::xml_node& node)
    {
        std::set<std::string_view> names;
        for (const pugi::xml_attribute& attribute : node.attributes())
        {
            if (!names.insert(attribute.name()).second)
            {
                m_fault = "an attribute given twice";
                return false;
            }
            if (std::strchr(attribute.value(), '<') != nullptr ||
                !HasOnlyKnownReferences(attribute.value(), m_hasDoctype))
            {
                m_fault = "an attribute's value with a bare '<' or a reference that is not known";
                return false;
            }
        }
        return true;
    }

    bool m_hasDoctype;
};

bool StartsWithDeclaration(const std::string& text)
{
    const std::string byteOrderMark = "\xEF\xBB\xBF";
    const bool isMarked = text.compare(0, byteOrderMark.size(), byteOrderMark) == 0;
    return text.compare(isMarked ? byteOrderMark.size() : 0, 5, "<?xml") == 0;
}

// The order of things outside the document element, which the parser does not care about.
class TCProlog
{
public:
    explicit TCProlog(const std::string& text)
        : m_startsWithDeclaration(StartsWithDeclaration(text))
    {
    }

    bool Add(const pugi::xml_node& node)
    {
        const bool isFirst = m_count++ == 0;
        switch (node.type())
        {
        case pugi::node_element:
            return ++m_elements == 1;
        case pugi::node_doctype:
            return ++m_doctypes == 1 && m_elements == 0;
        case pugi::node_declaration:
            return isFirst && m_startsWithDeclaration;
        case pugi::node_pi:
        case pugi::node_comment:
            return true;
        default:
            return false;
        }
    }

    bool HasElement() const
    {
        return m_elements == 1;
    }

    bool HasDoctype() const
    {
        return m_doctypes == 1;
    }

private:
    bool m_startsWithDeclaration;
    unsigned int m_count = 0;
    unsigned int m_elements = 0;
    unsigned int m_doctypes = 0;
};

} // namespace

bool IsWellFormedPolicy(const std::string& text, std::string& error)
{
    if (!HasOnlyXmlCharacters(text))
    {
        error = "it holds bytes that are not UTF-8 text";
        return false;
    }
    pugi::xml_document document;
    const pugi::xml_parse_result result =
        document.load_buffer(text.data(), text.size(), g_parseFlags, pugi::encoding_utf8);
    if (!result)
    {
        error = std::string(result.description()) + " at byte " + std::to_string(result.offset);
        return false;
    }
    TCProlog prolog(text);
    for (const pugi::xml_node& node : document.children())
    {
        if (!prolog.Add(node))
        {
            error = "something outside the document element that does not belong there";
            return false;
        }
    }
    if (!prolog.HasElement())
    {
        error = "no document element";
        return false;
    }
    TCContentCheck contentCheck(prolog.HasDoctype());
    if (!document.traverse(contentCheck))
    {
        error = contentCheck.m_fault;
        return false;
    }
    return true;
}

} // namespace qord
