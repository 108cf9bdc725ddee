-- Authentication for the XMPP server of the sandbox and of the tests: visitors log in with SASL
-- ANONYMOUS (the server picks their node), operators with SASL PLAIN against the accounts listed
-- in the option "kq_accounts" ({ ["42"] = "secret" }). A host has one authentication provider,
-- so this one offers both mechanisms.

local new_sasl = require "util.sasl".new;

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

module:provides("auth", provider);
