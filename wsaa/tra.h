#ifndef TARVO_WSAA_TRA_H
#define TARVO_WSAA_TRA_H

#include <pugixml.hpp>

#include <chrono>
#include <ctime>
#include <memory>
#include <string>
#include <utility>

class EasyHTTP;

// A WSAA access ticket for one service: from credentials.json while young enough,
// otherwise through a signed loginCms exchange whose answer is cached.
class TRA {
public:
    TRA(std::string url, std::string service, std::string certificate_path, std::string certificate_pass,
        std::shared_ptr<EasyHTTP> http);

    // (token, sign); may throw afip_driver_exception.
    std::pair<std::string, std::string> get_credentials();

    // Throws afip_driver_exception(11) when more than an hour has passed since the time text.
    void check_tra_is_expired(std::string generation_time);
    // The same judged at a given time.
    void check_tra_is_expired(std::string generation_time, std::time_t now);

    std::string create_tra_xml() const;
    // The same document for a given clock reading.
    std::string create_tra_xml(std::chrono::system_clock::time_point now) const;
    static std::string time_t_2_format_date(std::time_t when);
    static void set_node_value(pugi::xml_node parent, std::string name, std::string value);

    std::string create_login_cms_soap(std::string cms);
    void get_token_and_sign(std::string answer);
    void get_tra_error(std::string answer);

private:
    bool read_cached_ticket();
    void request_ticket();
    void write_cache();

    std::string m_url;
    std::string m_certificate_path;
    std::string m_certificate_pass;
    std::shared_ptr<EasyHTTP> m_http;
    std::string m_service;
    std::string m_ticket_token;
    std::string m_ticket_sign;
    std::string m_generation_time;
};

#endif
