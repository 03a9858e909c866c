// An HTTP server of one test, as bare as can be, so that every fault can be produced: a function answers each
// connection.
#ifndef TAVOR_TESTS_HTTP_SERVER_H
#define TAVOR_TESTS_HTTP_SERVER_H

#include <functional>
#include <string>
#include <thread>

struct HttpServer {
    // Called on the server's thread with the head of the request; the connection closes when it returns.
    using Answer = std::function<void(int connection, const std::string& request)>;

    explicit HttpServer(Answer answer);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    std::string address() const; // "127.0.0.1:PORT"

    int listener;
    int port = 0;
    Answer answer;
    std::thread thread;
};

void http_send(int connection, const std::string& bytes);
// Closing the connection then resets it.
void http_reset_at_close(int connection);
// Waits until the client has gone.
void http_wait_for_end(int connection);

#endif
