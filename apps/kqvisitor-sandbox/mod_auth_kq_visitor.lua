-- Authentication for the XMPP server of the sandbox and of the tests: visitors log in with SASL
-- ANONYMOUS (the server picks their node), operators with SASL PLAIN against the accounts listed
-- in the option "kq_accounts" ({ ["42"] = "secret" }). A host has one authentication provider,
-- so this one offers both mechanisms.
--
-- An anonymous visitor whose connection dropped can resume its session (stream management,
-- XEP-0198) only as the same user, and a plain ANONYMOUS login always gets a new one. So a login
-- whose trace (RFC 4505) reads "resume NODE TOKEN" gets the node NODE back, but only while NODE
-- still has a session that TOKEN, its secret resumption id, would resume. Any other trace is
-- ignored, as it is by every server.

local sasl = require "util.sasl";
local new_sasl = sasl.new;
local generate_id = require "util.id".medium;
local host = module.host;

local accounts = module:get_option("kq_accounts", {});

local provider = {};

function provider.test_password(username, password)
	return accounts[username] ~= nil and accounts[username] == password;
end

function provider.get_password(username)
	return accounts[username];
end

function provider.set_password()
	return nil, "Passwords are fixed by the configuration.";
end

function provider.user_exists(username)
	return accounts[username] ~= nil;
end

function provider.create_user()
	return nil, "Accounts are fixed by the configuration.";
end

function provider.delete_user()
	return nil, "Accounts are fixed by the configuration.";
end

function provider.users()
	local names = {};
	for name in pairs(accounts) do
		names[#names + 1] = name;
	end
	local index = 0;
	return function()
		index = index + 1;
		return names[index];
	end;
end

function provider.get_sasl_handler()
	return new_sasl(module.host, {
		plain_test = function(_, username, password)
			return provider.test_password(username, password), true;
		end;
		anonymous = function()
			return true;
		end;
	});
end

-- Whether `node` has a session on this host (hibernating or not) that `token` resumes.
local function resumable(node, token)
	local user = prosody.hosts[host] and prosody.hosts[host].sessions[node];
	if not user then
		return false;
	end
	for _, session in pairs(user.sessions) do
		if session.resumption_token == token then
			return true;
		end
	end
	return false;
end

sasl.registerMechanism("ANONYMOUS", { "anonymous" }, function(self, message)
	local node, token = (message or ""):match("^resume (%S+) (%S+)$");
	if node and resumable(node, token) then
		self.username = node;
		return "success";
	end
	local username;
	repeat
		username = generate_id():lower();
	until self.profile.anonymous(self, username, self.realm);
	self.username = username;
	return "success";
end);

module:provides("auth", provider);
