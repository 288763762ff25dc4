// The log's configuration in the registry, and the life of the library's log around it. Windows only.
#pragma once

namespace kestra {

/// Reads the configuration of the current user (key "Software\Quorvane\TARNIS\SDK\Log"), makes the library's
/// engine and opens the channels that are configured. Without configuration nothing is ever written.
/// @return true if the log is open now.
bool logLoadConfiguration() noexcept;

/// The library's log for as long as this object lives: one in a module, made when the module is loaded and
/// destroyed when it is unloaded. Loads the configuration and closes what that opened.
class LogLifetime {
public:
    LogLifetime() noexcept;
    ~LogLifetime();
    LogLifetime(const LogLifetime&) = delete;
    LogLifetime& operator=(const LogLifetime&) = delete;

private:
    bool m_open;
};

} // namespace kestra
