// Writes the two payloads that travel between processes into a file, or reads them back. It is
// built against two releases of Boost, to see which of them understands the other.
#include <exception>
#include <fstream>
#include <iostream>
#include <string>

#include <boost/archive/binary_iarchive.hpp>
#include <boost/archive/binary_oarchive.hpp>
#include <boost/version.hpp>

int main(int argc, char** argv)
{
    if (argc != 3)
    {
        std::cout << "Boost " << BOOST_VERSION / 100000 << '.' << BOOST_VERSION / 100 % 1000
                  << '\n';
        return 0;
    }
    const std::string policy = "<policy>\n\xff</policy>" + std::string(100000, '\0');
    const int code = -123456789;
    const std::string path = argv[2];
    try
    {
        // Each payload has an archive of its own, as in a message.
        if (argv[1] == std::string("write"))
        {
            std::ofstream text(path + ".text", std::ios::binary);
            std::ofstream number(path + ".number", std::ios::binary);
            boost::archive::binary_oarchive(text) << policy;
            boost::archive::binary_oarchive(number) << code;
            return 0;
        }
        std::ifstream text(path + ".text", std::ios::binary);
        std::ifstream number(path + ".number", std::ios::binary);
        std::string readPolicy;
        int readCode = 0;
        boost::archive::binary_iarchive(text) >> readPolicy;
        boost::archive::binary_iarchive(number) >> readCode;
        const bool same = readPolicy == policy && readCode == code;
        std::cout << (same ? "the same values" : "other values") << '\n';
        return same ? 0 : 1;
    }
    catch (const std::exception& failure)
    {
        std::cout << failure.what() << '\n';
        return 2;
    }
}
