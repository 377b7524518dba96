#include "mqlink/handler.h"

#include <utility>

namespace mqlink {

Handler::Handler(std::string name, std::string topic_filter, int option)
    : log(log4cpp::Category::getInstance(name)),
      _topic_filter(std::move(topic_filter)),
      _option(option)
{
}

Handler::~Handler() = default;

}  // namespace mqlink
