#include "support/log_capture.h"

class LogCapture::Appender : public log4cpp::AppenderSkeleton {
public:
    explicit Appender(LogCapture& capture) : AppenderSkeleton("log_capture"), _capture(capture) {}

    void close() override {}
    bool requiresLayout() const override { return false; }
    void setLayout(log4cpp::Layout*) override {}

protected:
    void _append(const log4cpp::LoggingEvent& event) override
    {
        const std::string category = event.categoryName.empty() ? "root" : event.categoryName;
        const std::string record = log4cpp::Priority::getPriorityName(event.priority) + " " +
                                   category + ": " + event.message;
        if (_capture.on_record) {
            _capture.on_record(record);
        }
        _capture._records.push_back(record);
    }

private:
    LogCapture& _capture;
};

LogCapture::LogCapture()
    : _appender(new Appender(*this)), _priority_before(log4cpp::Category::getRoot().getPriority())
{
    log4cpp::Category& root = log4cpp::Category::getRoot();
    root.addAppender(_appender);
    root.setPriority(log4cpp::Priority::DEBUG);
}

LogCapture::~LogCapture()
{
    log4cpp::Category& root = log4cpp::Category::getRoot();
    root.setPriority(_priority_before);
    root.removeAppender(_appender);
}

std::vector<std::string> LogCapture::texts_of(const std::string& category) const
{
    std::vector<std::string> texts;
    const std::string mark = " " + category + ": ";
    for (const std::string& record : _records) {
        const std::size_t blank = record.find(' ');
        if (record.compare(blank, mark.size(), mark) == 0) {
            texts.push_back(record.substr(blank + mark.size()));
        }
    }
    return texts;
}

void remove_configured_appenders()
{
    log4cpp::Category& root = log4cpp::Category::getRoot();
    for (log4cpp::Appender* appender : root.getAllAppenders()) {
        const bool is_owned = root.ownsAppender(appender);
        root.removeAppender(appender);
        if (!is_owned) {
            delete appender;
        }
    }
}
