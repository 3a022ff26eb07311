// Payloads between byte arrays and archives.
#include <sstream>
#include <string>
#include <vector>

#include <boost/archive/archive_exception.hpp>
#include <boost/archive/binary_iarchive.hpp>
#include <boost/archive/binary_oarchive.hpp>
#include <boost/serialization/string.hpp>

#include <gtest/gtest.h>

#include <qor/QORIpcSerializationUtil.h>

#include "LogCapture.h"

namespace
{

using namespace qortest;
using qor::TCIpcSerializationUtil;
using Bytes = std::vector<unsigned char>;

const char* const ASSERTION = "QORIpcSerializationUtil.cpp file in line ";

TEST(Serialization, EveryByteSurvivesTheWayThereAndBack)
{
    Bytes bytes;
    for (int i = 0; i < 1024; ++i)
    {
        bytes.push_back(static_cast<unsigned char>(i)); // with NUL, blank and line end
    }
    std::stringstream stream;
    TCIpcSerializationUtil::ConvertData(bytes, stream);
    Bytes copy(5000, 0xEE); // longer than what comes
    TCIpcSerializationUtil::ConvertData(stream, copy);
    EXPECT_EQ(copy, bytes);
    TCIpcSerializationUtil::ConvertData(Bytes{1}, stream);
    TCIpcSerializationUtil::ConvertData(stream, copy);
    bytes.push_back(1);
    EXPECT_EQ(copy, bytes); // written where the last ones ended
}

TEST(Serialization, StreamThatHasBeenReadConvertsWhole)
{
    std::stringstream stream;
    boost::archive::binary_oarchive out(stream);
    out << std::string("policy") << 42;
    Bytes before;
    TCIpcSerializationUtil::ConvertData(stream, before); // the archive is still open
    boost::archive::binary_iarchive in(stream);
    std::string text;
    in >> text;
    Bytes after;
    TCIpcSerializationUtil::ConvertData(stream, after);
    EXPECT_EQ(after, before);

    std::stringstream received;
    TCIpcSerializationUtil::ConvertData(after, received);
    boost::archive::binary_iarchive again(received);
    int number = 0;
    again >> text >> number;
    EXPECT_EQ(text, "policy");
    EXPECT_EQ(number, 42);
}

TEST(Serialization, EmptyInputIsReportedAndChangesNothing)
{
    LogCapture::Clear();
    std::stringstream stream;
    TCIpcSerializationUtil::ConvertData(Bytes(), stream);
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, ASSERTION), 1U);
    EXPECT_THROW(boost::archive::binary_iarchive archive(stream),
                 boost::archive::archive_exception);

    std::stringstream empty;
    Bytes data{1, 2};
    TCIpcSerializationUtil::ConvertData(empty, data);
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, ASSERTION), 2U);
    EXPECT_EQ(data, (Bytes{1, 2}));
}

} // namespace
