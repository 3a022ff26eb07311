// What counts as a well-formed policy.
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "qord/PolicyXml.h"

namespace
{

bool IsWellFormed(const std::string& text)
{
    std::string error;
    const bool result = qord::IsWellFormedPolicy(text, error);
    EXPECT_EQ(result, error.empty()) << error;
    return result;
}

TEST(PolicyXml, WellFormedTexts)
{
    for (const char* text : {
             "<a/>",
             "\xEF\xBB\xBF<?xml version='1.0' encoding='UTF-8'?><a/>",
             "<?xml version='1.0'?>\n<!-- c --><?pi x?>\n<a b='1' "
             "c=\"2\">t&amp;&#65;&#x1F600;</a>\n<!-- d -->\n",
             "<a><![CDATA[ <b> & ]]></a>",
             "<!DOCTYPE a [<!ENTITY e 'x'>]><a>&e;</a>",
             "<a>\xC3\xA9\xE2\x82\xAC</a>",
         })
    {
        EXPECT_TRUE(IsWellFormed(text)) << text;
    }
}

TEST(PolicyXml, MalformedTexts)
{
    for (const char* text : {
             "",
             " \n",
             "text",
             "<!-- only -->",
             "<?xml version='1.0'?>",
             "<a>",
             "</a>",
             "<a></b>",
             "<a><b></a></b>",
             "<a",
             "<a b/>",
             "<a b=1/>",
             "<1/>",
             "<a/><b/>",
             "x<a/>",
             "<a/>x",
             "<a/><![CDATA[x]]>",
             " <?xml version='1.0'?><a/>",
             "<a/><?xml version='1.0'?>",
             "<a/><!DOCTYPE a>",
             "<!DOCTYPE a><!DOCTYPE a><a/>",
             "<a b='1' b='2'/>",
             "<a b='<'/>",
             "<a b='&'/>",
             "<a>x & y</a>",
             "<a>&nope;</a>",
             "<a>&#;</a>",
             "<a>&#x;</a>",
             "<a>&#12a;</a>",
             "<a>&amp</a>",
             "<a>\xC3</a>",
             "<a>\xFF</a>",
             "<a>\x01</a>",
         })
    {
        EXPECT_FALSE(IsWellFormed(text)) << text;
    }
    EXPECT_FALSE(IsWellFormed(std::string("<a/>\0<b", 7)));
    EXPECT_FALSE(IsWellFormed(std::string("<\0a\0/\0>\0", 8)));
}

TEST(PolicyXml, EntitiesAreNeitherLoadedNorExpanded)
{
    EXPECT_TRUE(IsWellFormed("<!DOCTYPE a [<!ENTITY e SYSTEM 'file:///dev/zero'>]><a>&e;</a>"));
    std::string bomb = "<!DOCTYPE a [<!ENTITY e0 'xxxxxxxxxxxxxxxx'>";
    for (int level = 1; level < 40; ++level)
    {
        const std::string inner = "&e" + std::to_string(level - 1) + ";";
        bomb += "<!ENTITY e" + std::to_string(level) + " '" + inner + inner + inner + "'>";
    }
    EXPECT_TRUE(IsWellFormed(bomb + "]><a>&e39;</a>"));
}

TEST(PolicyXml, DepthAndBreadthDoNotUseUpTheStack)
{
    std::string deep;
    std::string end;
    std::string broad = "<a";
    for (int index = 0; index < 200000; ++index)
    {
        deep += "<a>";
        end += "</a>";
        broad += " b" + std::to_string(index) + "=''";
    }
    EXPECT_TRUE(IsWellFormed(deep + end));
    EXPECT_FALSE(IsWellFormed(deep));
    EXPECT_TRUE(IsWellFormed(broad + "/>"));
    EXPECT_FALSE(IsWellFormed(broad + " b7=''/>"));
}

} // namespace
