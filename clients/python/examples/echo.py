import kesa


def answer(request):
    if request.path == "/echo":
        return request.value                                       # one answer
    if request.path == "/count":
        return iter(range(3))                                      # a stream; generators, too
    raise kesa.ServiceError(404, f"no resource at {request.path}")


with kesa.connect("py-echo", timeout=None) as system:              # the name of this process, which provides
    system.provide("/py/echo", answer, metainfo={"room": "hall"}).wait()
