#pragma once

#include <QByteArray>
#include <QTcpServer>
#include <QTcpSocket>
#include <QUrl>

namespace kestrelvane::testing {

/// An HTTP server on loopback that answers every request with one fixed
/// response, so the updater can be tested against a real feed.
class AppcastServer : public QObject {
public:
    explicit AppcastServer(QByteArray body, int status = 200) {
        const QByteArray reason = status == 200 ? "OK" : "Not Found";
        response_ = "HTTP/1.1 " + QByteArray::number(status) + " " + reason +
                    "\r\nContent-Type: application/rss+xml\r\nContent-Length: " +
                    QByteArray::number(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
        server_.listen(QHostAddress::LocalHost);
        connect(&server_, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket* socket = server_.nextPendingConnection()) {
                connect(socket, &QTcpSocket::readyRead, socket, [this, socket] {
                    request_ += socket->readAll();
                    if (request_.contains("\r\n\r\n")) {
                        ++requests_;
                        socket->write(response_);
                        socket->disconnectFromHost();
                    }
                });
                connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
            }
        });
    }

    QUrl url() const {
        return QUrl(QStringLiteral("http://127.0.0.1:%1/appcast.xml").arg(server_.serverPort()));
    }
    int requests() const { return requests_; }

    static QByteArray appcast(const QByteArray& items) {
        return "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
               "<rss version=\"2.0\" "
               "xmlns:sparkle=\"http://www.andymatuschak.org/xml-namespaces/sparkle\">\n"
               "<channel><title>Kestrelvane</title>\n" +
               items + "</channel></rss>\n";
    }

private:
    QTcpServer server_;
    QByteArray response_;
    QByteArray request_;
    int requests_ = 0;
};

} // namespace kestrelvane::testing
