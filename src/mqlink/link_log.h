#pragma once

#include <chrono>
#include <log4cpp/Category.hh>
#include <set>
#include <string>

namespace mqlink {

/// Logs the changes of a connection's state. While attempts fail in a row, or connections end
/// within seconds, no line is repeated; once the state has lasted for 5 s, the last line about it
/// is true.
///
/// The owner reports each change, and calls refresh() about once a second. Every operation may
/// throw std::bad_alloc.
class LinkLog {
public:
    /// `log` is borrowed and must outlive this object.
    explicit LinkLog(log4cpp::Category& log) : log(log) {}

    /// The connection is established. Logged as INFO.
    void up(const std::string& text) { change(true, text); }
    /// The connection was lost, or an attempt has failed. Logged as ERROR.
    void down(const std::string& text) { change(false, text); }
    /// Something else about this connection. Logged as ERROR.
    void note(const std::string& text) { tell(log4cpp::Priority::ERROR, text); }

    /// Logs the state if it has lasted for 5 s and the log says otherwise. Returns true once for
    /// each connection: when it has lived for 5 s. Lines may be repeated from then on.
    bool refresh();
    /// Whether the present connection had lived for 5 s at the last refresh().
    bool is_settled() const { return _is_up && _settled; }

private:
    void change(bool is_up, const std::string& text);
    bool tell(log4cpp::Priority::Value priority, const std::string& text);

    log4cpp::Category& log;
    std::set<std::string> _told;  ///< lines logged since a connection last lived for 5 s
    bool _told_up = false;        ///< what the last line about the state says
    bool _is_up = false;
    bool _settled = true;                          ///< the state has lasted for 5 s
    std::chrono::steady_clock::time_point _since;  ///< when the state last changed
    std::string _text;                             ///< the last line about the state, logged or not
};

}  // namespace mqlink
