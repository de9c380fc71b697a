#include "rpc/DataCenterRpcServer.h"

#include <glog/logging.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/server/TThreadedServer.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TServerSocket.h>

#include <future>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "DataCenter.h"
#include "rpc/RpcProtocol.h"

using apache::thrift::TConnectionInfo;
using apache::thrift::server::TServerEventHandler;
using apache::thrift::server::TThreadedServer;
using apache::thrift::transport::TFramedTransportFactory;
using apache::thrift::transport::TServerSocket;

namespace datacenter {
namespace {

// Forwards the generated interface to the plain handler. Anything that is not
// a std::exception is turned into one, because the processor only answers
// std::exception with an exception reply; others would end the connection.
class HandlerAdapter : public DataCenterIf {
public:
    explicit HandlerAdapter(std::shared_ptr<DataCenterRpcHandler> handler) : handler_(std::move(handler)) {}

    void request(std::string& reply, const std::string& parameter) override {
        try {
            reply = handler_->request(parameter);
        } catch (const std::exception&) {
            throw;
        } catch (...) {
            throw std::runtime_error("unknown exception");
        }
    }

    void notify(std::string& reply, const int32_t type, const std::string& parameter) override {
        try {
            reply = handler_->notify(type, parameter);
        } catch (const std::exception&) {
            throw;
        } catch (...) {
            throw std::runtime_error("unknown exception");
        }
    }

private:
    std::shared_ptr<DataCenterRpcHandler> handler_;
};

// Hands every connection its own adapter around the one shared handler.
class HandlerFactory : public DataCenterIfFactory {
public:
    explicit HandlerFactory(std::shared_ptr<DataCenterRpcHandler> handler) : handler_(std::move(handler)) {}
    DataCenterIf* getHandler(const TConnectionInfo& /*connInfo*/) override { return new HandlerAdapter(handler_); }
    void releaseHandler(DataCenterIf* handler) override { delete handler; }

private:
    std::shared_ptr<DataCenterRpcHandler> handler_;
};

// Tells start() that the server socket listens.
class ListeningSignal : public TServerEventHandler {
public:
    explicit ListeningSignal(std::shared_ptr<std::promise<void>> listening) : listening_(std::move(listening)) {}
    void preServe() override { listening_->set_value(); }

private:
    std::shared_ptr<std::promise<void>> listening_;
};

}  // namespace

struct DataCenterRpcServer::Impl {
    std::shared_ptr<DataCenterRpcHandler> handler;
    std::string bindAddress;
    std::mutex mutex;
    std::shared_ptr<TServerSocket> socket;
    std::shared_ptr<TThreadedServer> server;
    std::thread thread;
    int port = 0;
};

DataCenterRpcServer::DataCenterRpcServer(std::shared_ptr<DataCenterRpcHandler> handler, const std::string& bindAddress)
    : impl_(new Impl) {
    impl_->handler = std::move(handler);
    impl_->bindAddress = bindAddress;
}

DataCenterRpcServer::~DataCenterRpcServer() {
    stop();
}

bool DataCenterRpcServer::start(int port, std::string& error) {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    if (impl_->server) {
        error = "server already started";
        return false;
    }
    try {
        auto socket = std::make_shared<TServerSocket>(impl_->bindAddress, port);
        auto factory = std::make_shared<DataCenterProcessorFactory>(std::make_shared<HandlerFactory>(impl_->handler));
        auto server = std::make_shared<TThreadedServer>(factory, socket, std::make_shared<TFramedTransportFactory>(),
                                                        makeRpcProtocolFactory());
        auto listening = std::make_shared<std::promise<void>>();
        std::future<void> listened = listening->get_future();
        server->setServerEventHandler(std::make_shared<ListeningSignal>(listening));
        // serve() listens first and reports a failure to listen by throwing; the
        // promise carries either outcome back to this thread.
        std::thread thread([server, listening]() {
            try {
                server->serve();
            } catch (...) {
                try {
                    listening->set_exception(std::current_exception());
                } catch (const std::future_error&) {
                    LOG(ERROR) << "DataCenter server stopped with an exception";
                }
            }
        });
        try {
            listened.get();
        } catch (...) {
            thread.join();
            throw;
        }
        impl_->socket = socket;
        impl_->server = server;
        impl_->thread = std::move(thread);
        impl_->port = socket->getPort();
        return true;
    } catch (const std::exception& e) {
        error = e.what();
        LOG(ERROR) << "DataCenter server start failed: " << e.what();
        return false;
    }
}

int DataCenterRpcServer::port() const {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->port;
}

void DataCenterRpcServer::stop() {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    if (!impl_->server) {
        return;
    }
    impl_->server->stop();
    if (impl_->thread.joinable()) {
        impl_->thread.join();
    }
    impl_->server.reset();
    impl_->socket.reset();
    impl_->port = 0;
}

}  // namespace datacenter
