#pragma once
// Owner of one file descriptor: closes it when destroyed or replaced. Move-only.

class CFileDescriptor {
public:
    CFileDescriptor() = default;
    explicit CFileDescriptor(int descriptor) : m_descriptor(descriptor) {}
    ~CFileDescriptor();

    CFileDescriptor(CFileDescriptor&& other) noexcept;
    CFileDescriptor& operator=(CFileDescriptor&& other) noexcept;
    CFileDescriptor(const CFileDescriptor&) = delete;
    CFileDescriptor& operator=(const CFileDescriptor&) = delete;

    int Get() const { return m_descriptor; }
    bool Valid() const { return m_descriptor >= 0; }
    void Reset(int descriptor = -1);

private:
    int m_descriptor = -1;
};
