"""A gRPC service of python3-grpcio with one unary method that returns its bytes.

    grpc_echo_server.py ADDRESS

Prints a line when it listens; ends when its standard input does.
"""

import concurrent.futures
import sys

import grpc


class Echo(grpc.GenericRpcHandler):
    def service(self, call):
        return grpc.unary_unary_rpc_method_handler(lambda request, context: request)


def main(address: str) -> None:
    server = grpc.server(concurrent.futures.ThreadPoolExecutor(1), handlers=[Echo()])
    server.add_insecure_port(address)
    server.start()
    print("listening", flush=True)
    sys.stdin.read()
    server.stop(None).wait()


if __name__ == "__main__":
    main(sys.argv[1])
