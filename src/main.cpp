#include <mosquittopp.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>
#include <log4cpp/Category.hh>
#include <log4cpp/PropertyConfigurator.hh>
#include <string>

#include "properties.h"
#include "server_comms.h"

namespace pex {

volatile sig_atomic_t program_running = 1;

}  // namespace pex

bool register_signal_handler(int sig_num, void (*handler)(int))
{
    log4cpp::Category& log = log4cpp::Category::getRoot();
    struct sigaction action = {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;  // no SA_RESTART: a signal is to cut the loop's wait short
    if (sigaction(sig_num, &action, nullptr) != 0) {
        char buffer[80];
        log.error("sigaction: %s", strerror_r(errno, buffer, sizeof buffer));
        return false;
    }
    return true;
}

void term_handler(int)
{
    pex::program_running = 0;
}

/// Catches nothing: a service that is misconfigured stops hard instead of running half configured.
int main(int argc, char* argv[])
{
    if (argc != 2) {
        std::cerr << argv[0] << " expects the path to the config file to be provided." << std::endl;
        return 1;
    }
    cProperties props;
    const std::string config_file_path = argv[1];
    if (!props.load(config_file_path.c_str())) {
        std::cerr << "Config file: " << config_file_path << " failed to load." << std::endl;
        return 1;
    }

    log4cpp::PropertyConfigurator::configure(config_file_path);
    log4cpp::Category& log = log4cpp::Category::getRoot();
    if (!register_signal_handler(SIGINT, term_handler) ||
        !register_signal_handler(SIGTERM, term_handler)) {
        return 1;
    }

    log.debug("Initialising mosquitto");
    int mosq_rc = mosqpp::lib_init();
    if (mosq_rc != MOSQ_ERR_SUCCESS) {
        log.error("Couldn't init mosquitto. %s", mosqpp::strerror(mosq_rc));
        return 1;
    }
    pex::ServerCommunicator server_comms(props);
    server_comms.start();

    log.debug("Cleaning up mosquitto");
    // Before server_comms, and the client in it, is destroyed: libmosquitto allows this order.
    mosq_rc = mosqpp::lib_cleanup();
    if (mosq_rc != MOSQ_ERR_SUCCESS) {
        log.error("Couldn't cleanup mosquitto on exit. %s", mosqpp::strerror(mosq_rc));
        return 1;
    }
    log.debug("Cleanup done");
    return 0;
}
