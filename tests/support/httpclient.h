// A raw HTTP client for end-to-end tests on loopback.
#pragma once

#include <chrono>
#include <string>

namespace cmstest {

// Sends `request` and returns everything received until the server closes (or `timeout`
// passes); empty when the connection could not be made.
std::string HttpExchange(int port, const std::string& request,
                         std::chrono::milliseconds timeout = std::chrono::milliseconds(5000));
// A plain "GET <target> HTTP/1.1" with a Host line.
std::string HttpGet(int port, const std::string& target);
// What follows the first empty line of a reply.
std::string HttpBody(const std::string& reply);

}  // namespace cmstest
