import kesa

with kesa.connect() as system:
    for record in system.list("/greeter"):                         # or "/system/**", or all
        print(record.path, record.provider, flush=True)
    print(system.call("/greeter", "/hello/world"), flush=True)
    with system.follow("/thermometer", "/celsius") as values:      # until it is left, or the stream ends
        for value in values:
            print(value, flush=True)
