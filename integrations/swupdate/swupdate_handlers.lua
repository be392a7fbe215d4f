-- SWUpdate's Lua image handler "modem-firmware": one modem firmware update, carried out by
-- modemloader-host through the update systems' shared runner, modem-update.
--
-- SWUpdate loads this file at start-up with require("swupdate_handlers") (through LUA_PATH_5_3 or
-- Lua's default path, /usr/share/lua/5.3/ on Debian). Every image of type "modem-firmware" comes
-- here, one call per image, in the order of sw-description; its property "role" says what it is.
-- The update files come first, each with the host configuration's key as its role
-- (bootloader, productconfig, daemonconfig, firmware), and are copied into SWUpdate's temporary
-- directory. The last image has the role "update" (integrations/swupdate/modem-swu writes them
-- so): its call runs
--   modem-update --settings SETTINGS --revision VERSION --file ROLE=COPY ... --progress
-- which places the files where the host's configuration names them and runs the host with that
-- image's version as the revision. Its payload (the revision as text) is not read: reading an
-- image makes SWUpdate report the copy's own 0 to 100 in the image's step, and this step's
-- progress is the modem's alone. (SWUpdate has checked its sha256 when it extracted it.) The
-- runner's "progress N" lines become swupdate.progress_update(N), so a progress client sees the
-- modem being written; its standard error (the host's last lines, its own message on a failure)
-- is SWUpdate's. The install fails when the runner fails.
--
-- Settings: /etc/swupdate/modem-firmware.conf (MODEMLOADER_SWUPDATE_SETTINGS names another
-- file), the runner's "key = value" format (modem-update --help); the key "runner" names the
-- runner, by default /usr/libexec/modemloader/modem-update.

local kSettings = "/etc/swupdate/modem-firmware.conf"
local kRunner = "/usr/libexec/modemloader/modem-update"
local kFileRoles = { bootloader = true, productconfig = true, daemonconfig = true, firmware = true }

-- The copies of this install's images so far, by role; emptied when the update step ends. SWUpdate
-- keeps this state from one install to the next, and an install stopped before its update step
-- (another handler failed, the stream was cut) leaves its copies here: a role that arrives while
-- it is staged already begins another install, whose images must not mix with them.
local staged = {}

local function Quoted(text)
    return "'" .. text:gsub("'", "'\\''") .. "'"
end

-- The settings' last "runner = PATH", if any; the runner checks the rest of the file.
local function RunnerOf(settings)
    local runner = kRunner
    local file = io.open(settings, "r")
    if file then
        for line in file:lines() do
            local value = line:match("^%s*runner%s*=%s*(.-)%s*$")
            if value and value ~= "" then
                runner = value
            end
        end
        file:close()
    end
    return runner
end

local function ForgetStaged()
    for _, path in pairs(staged) do
        os.remove(path)
    end
    staged = {}
end

-- The handler's own lines go to SWUpdate's standard error at once, as the runner's do, and to
-- SWUpdate's notifiers (its log, progress clients, a hawkBit server): standard error reaches the
-- service's journal whatever SWUpdate's log level, the notifiers reach its clients.
local function Say(Notify, text)
    io.stderr:write("modem-firmware: " .. text .. "\n")
    io.stderr:flush()
    Notify("modem-firmware: " .. text)
end

local function Fail(text)
    Say(swupdate.error, text)
    ForgetStaged()
    return 1
end

local function RunUpdate(revision)
    for _, role in ipairs({ "bootloader", "firmware" }) do
        if not staged[role] then
            return Fail("the image carries no " .. role .. " before its update step")
        end
    end
    local settings = os.getenv("MODEMLOADER_SWUPDATE_SETTINGS") or kSettings
    local runner = RunnerOf(settings)
    local command = { Quoted(runner), "--settings", Quoted(settings), "--revision",
                      Quoted(revision), "--progress" }
    for role, path in pairs(staged) do
        command[#command + 1] = "--file " .. Quoted(role .. "=" .. path)
    end
    Say(swupdate.info, "installing revision " .. revision)
    -- Only the runner's standard output comes here; its standard error (the host's last lines,
    -- its own failure) goes straight to SWUpdate's. Its exit status comes as a last line too:
    -- SWUpdate reaps children of its own, and may take the shell's status before our close.
    local output = io.popen(table.concat(command, " ") .. '; echo "exit $?"', "r")
    if not output then
        return Fail("cannot run " .. runner)
    end
    -- Read to the end whatever happens: a read that a signal to SWUpdate interrupts returns an
    -- error and is simply repeated (file:read clears the error first).
    local status = nil
    while true do
        local line, error = output:read("l")
        if line then
            local percent = line:match("^progress (%d+)$")
            if percent then
                swupdate.progress_update(tonumber(percent))
            end
            status = tonumber(line:match("^exit (%d+)$")) or status
        elseif not error then
            break
        elseif not error:match("[Ii]nterrupted") then
            -- The runner goes on without us (it drains its progress); wait for its end.
            Say(swupdate.warn, "reading the progress of " .. runner .. ": " .. error)
            break
        end
    end
    local closed, _, closedStatus = output:close()
    if status == nil then
        status = closed and 0 or closedStatus
    end
    if status ~= 0 then
        return Fail("revision " .. revision .. " not installed (modem-update exited with status " ..
                    tostring(status) .. ")")
    end
    ForgetStaged()
    Say(swupdate.info, "revision " .. revision .. " installed")
    return 0
end

local function ModemFirmware(image)
    local role = image.properties and image.properties.role
    if role == "update" then
        if not image.version or image.version == "" then
            return Fail(image.filename .. ": the update step has no version (the revision)")
        end
        return RunUpdate(image.version)
    end
    if not role or not kFileRoles[role] then
        return Fail(image.filename .. ": property \"role\" must be bootloader, productconfig, " ..
                    "daemonconfig, firmware or update, not " .. tostring(role))
    end
    if staged[role] then
        ForgetStaged()
    end
    local copy = swupdate.tmpdir() .. "modem-firmware." .. role
    local error, text = image:copy2file(copy)
    if error ~= 0 then
        return Fail("copying " .. image.filename .. " to " .. copy .. ": " .. tostring(text))
    end
    staged[role] = copy
    return 0
end

-- A Lua error in here fails the install like any other failure, with its text.
local function Handler(image)
    local ran, result = pcall(ModemFirmware, image)
    if ran then
        return result
    end
    return Fail(tostring(result))
end

swupdate.register_handler("modem-firmware", Handler, swupdate.HANDLER_MASK.IMAGE_HANDLER)
