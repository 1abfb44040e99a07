#ifndef TARVO_SIMULATOR_OPTIONS_H
#define TARVO_SIMULATOR_OPTIONS_H

#include <set>
#include <string>
#include <utility>
#include <vector>

struct Options {
    std::string host = "127.0.0.1";
    int port = 0;
    bool tls = false;
    bool legacy_tls = false;
    std::string tls_name;
    std::string tls_certificate_output;
    std::string port_file;
    std::vector<std::string> services{"wsfe", "ws_sr_constancia_inscripcion", "ws_sr_padron_a13"};
    long ticket_seconds = 43200;
    long refuse_relogin_seconds = 600;
    std::vector<std::string> relations;
    long service_delay_ms = 0;
    bool non_xml_answer = false;
    long max_seconds = 0;
    std::string receptor_condition_required_from = "20261201"; // yyyymmdd
    std::string padron_file;
    std::string state_file;
    std::string today; // yyyymmdd; empty: the real date
    std::set<long long> points_of_sale;
    std::set<long long> caea_points_of_sale;
    std::vector<std::pair<int, std::string>> events;
    bool rules = false;

    std::string certificate_output;
    std::string certificate_password;
    bool password_given = false;
    std::string certificate_common_name = "simulator-client";
    bool certificate_expired = false;
    std::string certificate_cuit = "20111111112";
    bool cuit_given = false;

    bool help = false;
};

// Throws std::invalid_argument with a message for the user on a bad command line.
Options parse_options(int argc, char** argv);

// The whole text as a number within the bounds, or std::invalid_argument naming `what`.
long parse_whole_number(const std::string& what, const std::string& text, long minimum, long maximum);

const char* usage_text();

#endif
