// Writes the two payloads that travel between processes into a file, or reads them back. It is
// built against two releases of Boost, to see which of them understands the other.
#include <cstring>
#include <exception>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>

#include <boost/archive/binary_iarchive.hpp>
#include <boost/archive/binary_oarchive.hpp>
#include <boost/version.hpp>

namespace
{

std::string Policy()
{
    std::string policy("<policy>\n\0\xff</policy>", 20);
    policy.append(100000, 'x');
    return policy;
}

constexpr int CODE = -123456789;

// Each payload has an archive of its own, as in a message; a line before it says how long it is.
template <class TValue>
void Write(std::ostream& file, const TValue& value)
{
    std::stringstream payload;
    boost::archive::binary_oarchive(payload) << value;
    const std::string bytes = payload.str();
    file << bytes.size() << '\n' << bytes;
}

template <class TValue>
bool Read(std::istream& file, const TValue& expected)
{
    std::size_t size = 0;
    file >> size;
    file.get();
    std::string bytes(size, '\0');
    file.read(&bytes[0], static_cast<std::streamsize>(size));
    std::stringstream payload(bytes);
    TValue value = TValue();
    boost::archive::binary_iarchive(payload) >> value;
    return value == expected;
}

bool ReadBoth(const char* path)
{
    std::ifstream file(path, std::ios::binary);
    return Read(file, Policy()) && Read(file, CODE);
}

} // namespace

int main(int argc, char** argv)
{
    const std::string command = argc > 1 ? argv[1] : "";
    if (command == "release")
    {
        std::cout << "Boost " << BOOST_VERSION / 100000 << '.' << BOOST_VERSION / 100 % 1000
                  << '\n';
        return 0;
    }
    if (argc != 3)
    {
        std::cerr << "usage: ArchiveProbe release | write FILE | read FILE\n";
        return 64;
    }
    try
    {
        if (command == "write")
        {
            std::ofstream file(argv[2], std::ios::binary);
            Write(file, Policy());
            Write(file, CODE);
            return file.good() ? 0 : 1;
        }
        const bool same = ReadBoth(argv[2]);
        std::cout << (same ? "the same values" : "other values") << '\n';
        return same ? 0 : 1;
    }
    catch (const std::exception& failure)
    {
        std::cout << failure.what() << '\n';
        return 2;
    }
}
