#pragma once
// Runs shell command lines for the features.
//
// The static operation forwards to one replaceable backend: the host installs the real one,
// tests install fakes. Calls may come from any thread.

class ICmdHandlerBackend {
public:
    virtual ~ICmdHandlerBackend() {}
    virtual int SystemCmd(const unsigned char* commandLine) = 0;
};

class ICmdHandler {
public:
    // Runs the line through the shell; 0 means success, anything else failure.
    // Without a backend it fails with -1.
    static int SystemCmd(const unsigned char* commandLine);

    // Installs `backend` (null removes it) and returns the one installed before.
    static ICmdHandlerBackend* SetBackend(ICmdHandlerBackend* backend);
};
