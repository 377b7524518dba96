#include "mqlink/link_log.h"

namespace mqlink {

namespace {

constexpr std::chrono::seconds settling_time(5);

log4cpp::Priority::Value priority_of(bool is_up)
{
    return is_up ? log4cpp::Priority::INFO : log4cpp::Priority::ERROR;
}

}  // namespace

bool LinkLog::refresh()
{
    if (_settled || std::chrono::steady_clock::now() - _since < settling_time) {
        return false;
    }
    _settled = true;
    if (_is_up) {
        _told.clear();
    }
    if (_told_up != _is_up) {
        log.log(priority_of(_is_up), _text);
        _told_up = _is_up;
    }
    return _is_up;
}

void LinkLog::change(bool is_up, const std::string& text)
{
    if (is_up || _is_up) {  // a further failed attempt is no change
        _since = std::chrono::steady_clock::now();
        _settled = false;
    }
    _is_up = is_up;
    _text = text;
    if (tell(priority_of(is_up), text)) {
        _told_up = is_up;
    }
}

/// Logs a line, unless it was logged since a connection last settled. Returns whether it did.
bool LinkLog::tell(log4cpp::Priority::Value priority, const std::string& text)
{
    const bool is_news = _told.insert(text).second;
    if (is_news) {
        log.log(priority, text);
    }
    return is_news;
}

}  // namespace mqlink
