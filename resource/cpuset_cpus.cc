#include <cctype>
#include <fstream>
#include <sstream>

#include "core/sk_log.h"
#include "resource/core_affinity_mgr.h"

namespace Stavik {
namespace {

constexpr size_t LIST_TOKENS_MAX = 129;
constexpr size_t UINT32_DIGITS_MAX = 10;

bool IsDigitAt(const std::string& line, size_t position)
{
    return position < line.size() && isdigit(static_cast<unsigned char>(line[position])) != 0;
}

uint32_t DigitAt(const std::string& line, size_t position)
{
    return static_cast<uint32_t>(line[position] - '0');
}

// "0,2,5": tokens made only of digits, in order.
std::vector<uint32_t> ReadPlainList(const std::string& line)
{
    std::vector<uint32_t> cpus;
    std::istringstream in(line);
    std::string token;
    for (size_t count = 0; count < LIST_TOKENS_MAX && std::getline(in, token, ','); ++count) {
        bool onlyDigits = !token.empty() && token.find_first_not_of("0123456789") == std::string::npos;
        if (!onlyDigits || token.size() > UINT32_DIGITS_MAX) {
            continue;
        }
        unsigned long long cpu = std::stoull(token);
        if (cpu <= UINT32_MAX) {
            cpus.push_back(static_cast<uint32_t>(cpu));
        }
    }
    return cpus;
}

// The one or two digits before a "-".
uint32_t LowerBound(const std::string& line, size_t dash)
{
    if (dash == 0 || !IsDigitAt(line, dash - 1)) {
        return 0;
    }
    if (dash != 1 && IsDigitAt(line, dash - 2)) {
        return DigitAt(line, dash - 2) * 10 + DigitAt(line, dash - 1);
    }
    return DigitAt(line, dash - 1);
}

// The one or two digits after a "-".
uint32_t UpperBound(const std::string& line, size_t dash)
{
    if (!IsDigitAt(line, dash + 1)) {
        return 0;
    }
    if (IsDigitAt(line, dash + 2)) {
        return DigitAt(line, dash + 1) * 10 + DigitAt(line, dash + 2);
    }
    return DigitAt(line, dash + 1);
}

std::vector<uint32_t> ReadRanges(const std::string& path, const std::string& line)
{
    std::vector<uint32_t> cpus;
    for (size_t dash = line.find('-'); dash != std::string::npos; dash = line.find('-', dash + 1)) {
        SK_LOG(LOG_INFO, "path:%s position:%lu CpuCore size:%lu", path.c_str(), static_cast<unsigned long>(dash),
               static_cast<unsigned long>(line.size()));
        uint32_t lower = LowerBound(line, dash);
        uint32_t upper = UpperBound(line, dash);
        SK_LOG(LOG_INFO, "path:%s position before:%u after:%u", path.c_str(), lower, upper);
        for (uint32_t cpu = lower; cpu <= upper; ++cpu) {
            cpus.push_back(cpu);
        }
    }
    return cpus;
}

} // namespace

std::vector<uint32_t> ReadCpusetCpus(const std::string& path)
{
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    if (line.find('-') == std::string::npos) {
        return ReadPlainList(line);
    }
    return ReadRanges(path, line);
}

} // namespace Stavik
